/*
 * The debug command "bypass": restores every product, or prints the state of each. Host's console
 * callbacks.
 */
#include "bypass_mgr_debug.h"

#include <string.h>

#include <oxni/base/json.h>

#include "bypass_mgr_command.h"
#include "bypass_mgr_table.h"
#include "exception_boundary.h"
#include "json_text.h"
#include "recover_tag.h"

const char bypass_mgr_dbg_help[] = R"(details of onxi app bypass
	 oxni bypass  -r: Restore all drivers
	 oxni bypass  -p: Output all drive statesn)";

static void echo_json(oxni_dbg_context *context, const json_t *json)
{
    char *text = json_text_dump(json);

    if (text != NULL)
        oxni_dbg_echo(context, 0, text);
    json_text_free(text);
}

/* Every product gets the command, bypassed or not. The tag recovers products that are still in
 * bypass after a later, normal start. */
static void restore_all(oxni_dbg_context *context)
{
    static const struct bypass_cmd request = {"recover", NULL, 0};
    const oxni_xhash_entry *entry;
    json_t *names = json_array();

    for (entry = bypass_mgr_table_first(); entry != NULL; entry = bypass_mgr_table_next(entry))
        (void)bypass_mgr_send(bypass_mgr_table_subscriber(entry), &request);
    for (entry = bypass_mgr_table_first(); entry != NULL; entry = bypass_mgr_table_next(entry))
        (void)json_array_append_new(names,
                                    json_string(bypass_mgr_table_record(entry)->product_name));
    echo_json(context, names);
    json_decref(names);
    (void)recover_tag_write(); /* it logs what failed */
}

/* A new object; members that memory is too short for are left out. */
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

    for (entry = bypass_mgr_table_first(); entry != NULL; entry = bypass_mgr_table_next(entry))
        if (bypass_mgr_table_record(entry) != NULL)
            (void)json_array_append_new(states, product_state(bypass_mgr_table_record(entry)));
    echo_json(context, states);
    json_decref(states);
}

static void run_command(int32_t argc, char **argv, oxni_dbg_context *context)
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

void bypass_mgr_dbg_cmd(int32_t argc, char **argv, oxni_dbg_context *context)
{
    exception_boundary("debug command", [&] { run_command(argc, argv, context); });
}
