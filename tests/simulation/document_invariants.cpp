/* The documents of the plug-in: the model's store against the document in memory and the one on the
 * disk, and the upload history. */
#include "invariants.h"

#include <cstring>

#include <oxni/base/ejs.h>
#include <oxni/base/json.h>
#include <oxni/base/memory.h>

#include "agent/agent.h"
#include "base/text.h"
#include "disk/files.h"
#include "harness/previous_boot.h"
#include "model.h"
#include "scenario/journal.h"

static constexpr char STORE_FILE[] = "bypass_mgr_persistence.ejs";
static constexpr char HISTORY_FILE[] = "bypass_mgr_upload.ejs";
static constexpr char DUMP_RECORD_FILE[] = "bypass_mgr_dumprecord.ejs";

/* FNV-1a with 64 bits at a time, whose high bits reach the low ones, too. */
static uint64_t hash_step(uint64_t hash, uint64_t value)
{
    hash = (hash ^ value) * 0x100000001b3ull;
    return hash ^ (hash >> 32);
}

static uint64_t hash_text(uint64_t hash, const char *text)
{
    size_t left = strlen(text);
    uint64_t word;

    hash = hash_step(hash, left);
    for (; left >= sizeof(word); text += sizeof(word), left -= sizeof(word)) {
        memcpy(&word, text, sizeof(word));
        hash = hash_step(hash, word);
    }
    word = 0;
    memcpy(&word, text, left);
    return hash_step(hash, word);
}

/* Of all that the text of a value shows, but for reals, of which the store has none. */
static uint64_t hash_of(json_t *value, uint64_t hash = 0xcbf29ce484222325ull)
{
    json_t *inner;
    size_t index;

    hash = hash_step(hash, value != nullptr ? json_typeof(value) : JSON_NULL);
    if (json_is_string(value))
        return hash_text(hash, json_string_value(value));
    if (json_is_integer(value))
        return hash_step(hash, static_cast<uint64_t>(json_integer_value(value)));
    for (void *at = json_object_iter(value); at != nullptr; at = json_object_iter_next(value, at))
        hash = hash_of(json_object_iter_value(at), hash_text(hash, json_object_iter_key(at)));
    json_array_foreach(value, index, inner)
    {
        hash = hash_of(inner, hash);
    }
    return hash_step(hash, 0x100);
}

/* Of all that the document is compared with. */
static uint64_t hash_of_model(void)
{
    uint64_t hash = model_machine.has_crash;

    for (const auto &[name, entry] : model_machine.store) {
        hash = hash_step(hash_text(hash, name.c_str()), static_cast<uint64_t>(entry.count));
        hash = hash_step(hash, static_cast<uint64_t>(entry.status));
    }
    hash = hash_text(hash, model_machine.blamed.c_str());
    return hash_text(hash, model_machine.dump_created.c_str());
}

static void compare_store(void)
{
    json_t *data = json_object_get(model_agent.document, "data");
    const char *name;
    json_t *value;

    WANT(json_object_size(data) == model_machine.store.size() + (model_machine.has_crash ? 1 : 0),
         "store", "it holds " + text_of_json(data));
    json_object_foreach(data, name, value)
    {
        auto at = model_machine.store.find(name);

        if (std::string(name) == "crash_info") {
            WANT(model_machine.has_crash &&
                     model_text(value, "module_name") == model_machine.blamed &&
                     model_text(value, "create_time") == model_machine.dump_created,
                 "blame", "the store blames " + text_of_json(value));
            continue;
        }
        WANT(at != model_machine.store.end() &&
                 json_integer_value(json_object_get(value, "count")) == at->second.count &&
                 json_integer_value(json_object_get(value, "status")) == at->second.status,
             "store", std::string(name) + " is stored as " + text_of_json(value));
    }
}

void documents_check_store(void)
{
    const uint64_t document = hash_of(model_agent.document), model = hash_of_model();

    WANT(model_machine.behind || document == model_machine.on_disk_hash, "store on disk",
         "the file holds " + model_machine.on_disk);
    /* Few deliveries change one of them, and as long as none does they agree as before. */
    if (document == model_machine.compared_document && model == model_machine.compared_model)
        return;
    model_machine.compared_document = document;
    model_machine.compared_model = model;
    compare_store();
}

static bool ends_with(uint64_t path, const std::string &name)
{
    std::string text = reinterpret_cast<const char *>(path);

    return text.size() >= name.size() && text.substr(text.size() - name.size()) == name;
}

/* Whether a text is what the platform writes of a document. */
static bool is_text_of(const std::string &text, const json_t *document)
{
    /* Without the platform's allocations, which take most of its time. */
    if (text == text_of_json(document, true))
        return true;
    char *written = json_dumps(document, JSON_COMPACT); /* control characters look different */
    const bool equal = written != nullptr && text == written;
    oxni_free_(written);
    return equal;
}

static void set_on_disk(const std::string &text, json_t *document)
{
    model_machine.on_disk = text;
    model_machine.on_disk_hash = hash_of(document);
}

void documents_on_load(const uint64_t *a, uint64_t result)
{
    if (!ends_with(a[0], STORE_FILE))
        return;
    model_agent.document = reinterpret_cast<json_t *>(result);
    set_on_disk(text_of_json(model_agent.document), model_agent.document);
}

void documents_on_dump(const uint64_t *a, uint64_t result)
{
    const char *path = reinterpret_cast<const char *>(a[1]);

    model_agent.records_written += ends_with(a[1], DUMP_RECORD_FILE);
    if (!ends_with(a[1], STORE_FILE))
        return;
    model_agent.document = reinterpret_cast<json_t *>(a[0]);
    model_machine.behind = static_cast<int>(result) != 0;
    if (model_machine.behind)
        return;
    /* The texts are compared: parsing what was just written takes as long as writing it. */
    const std::string written =
        ejs_text(machine_read_real_file(text_wide(path), EXIT_EXPECTATION_FAILED));
    set_on_disk(written,
                is_text_of(written, model_agent.document) ? model_agent.document : nullptr);
}

void documents_check_history(void)
{
    json_t *history = wdu_json_load_file_ejs(agent_data_path(HISTORY_FILE).c_str()), *value;
    const char *name;

    json_object_foreach(history, name, value)
    {
        WANT(model_machine.bypassed.count(name) != 0, "alarms",
             std::string(name) + " is in the history and was never in bypass");
    }
    json_decref(history);
}

/* What the file holds is what there is, when its last writing failed. */
void documents_fall_back(void)
{
    json_t *document = json_loads(model_machine.on_disk.c_str(), 0, nullptr), *value;
    const char *name;

    model_machine.behind = false;
    model_machine.store.clear();
    model_machine.has_crash = false;
    model_machine.boot_seconds =
        static_cast<uint64_t>(json_integer_value(json_object_get(document, "start_time"))) +
        UNIX_EPOCH_SECONDS;
    json_object_foreach(json_object_get(document, "data"), name, value)
    {
        if (std::string(name) != "crash_info") {
            model_machine.store[name] = {
                json_integer_value(json_object_get(value, "count")),
                static_cast<int>(json_integer_value(json_object_get(value, "status")))};
            continue;
        }
        model_machine.has_crash = true;
        model_machine.blamed = model_text(value, "module_name");
        model_machine.dump_created = model_text(value, "create_time");
    }
    json_decref(document);
}
