/*
 * The debug command "bypass": restores every product, or prints the state of each. Host's console
 * callbacks.
 */
#include "bypass_mgr_internal.h"

#include <string.h>

#include "bypass_log.h"
#include "json_text.h"

const char bypass_mgr_dbg_help[] = "details of onxi app bypass\n\t oxni bypass  -r: Restore all "
                                   "drivers\n\t oxni bypass  -p: Output all drive statesn";

static void echo_json(oxni_dbg_context *context, const json_t *json)
{
    char *text = json_text_dump(json);

    if (text != NULL)
        oxni_dbg_echo(context, 0, text);
    json_text_free(text);
}

/* Everybody gets the command, bypassed or not. The tag goes on to recover those that are still in
 * bypass after a later, normal start. */
static void restore_all(oxni_dbg_context *context)
{
    static const struct bypass_cmd request = {"recover", NULL, 0};
    const oxni_xhash_entry *entry;
    json_t *names = json_array();

    for (entry = bypass_mgr_first_product(); entry != NULL; entry = bypass_mgr_next_product(entry))
        (void)bypass_mgr_send(bypass_mgr_entry_subscriber(entry), &request);
    for (entry = bypass_mgr_first_product(); entry != NULL; entry = bypass_mgr_next_product(entry))
        (void)json_array_append_new(names,
                                    json_string(bypass_mgr_entry_record(entry)->product_name));
    echo_json(context, names);
    json_decref(names);
    (void)bypass_mgr_write_recover_tag(); /* it logs what failed */
}

/* A new object; what memory is too short for is left out. */
static json_t *product_state(const struct suber_set *record)
{
    json_t *state = json_object(), *data = json_object(), *modules = json_array();
    const oxni_xhash_entry *module;

    for (module = oxni_xhash_first(record->driver_modules); module != NULL;
         module = oxni_xhash_next(record->driver_modules, module))
        (void)json_array_append_new(modules, json_string((const char *)module->key));
    (void)json_object_set_new(state, "product_name", json_string(record->product_name));
    (void)json_object_set_new(state, "status", json_integer(record->status));
    (void)json_object_set_new(state, "count", json_integer(record->count));
    (void)json_object_set_new(data, "modules", modules);
    (void)json_object_set_new(state, "data", data);
    return state;
}

static void print_all(oxni_dbg_context *context)
{
    const oxni_xhash_entry *entry;
    json_t *states = json_array();

    for (entry = bypass_mgr_first_product(); entry != NULL; entry = bypass_mgr_next_product(entry))
        if (bypass_mgr_entry_record(entry) != NULL)
            (void)json_array_append_new(states, product_state(bypass_mgr_entry_record(entry)));
    echo_json(context, states);
    json_decref(states);
}

void bypass_mgr_dbg_cmd(int32_t argc, char **argv, oxni_dbg_context *context)
{
    if (argc < 2) {
        oxni_dbg_echo(context, 0, bypass_mgr_dbg_help);
        return;
    }
    if (strcmp(argv[0], "bypass") != 0)
        return;
    if (strcmp(argv[1], "-r") == 0)
        restore_all(context);
    else if (strcmp(argv[1], "-p") == 0)
        print_all(context);
    else
        oxni_dbg_echo(context, 0, bypass_mgr_dbg_help);
}
