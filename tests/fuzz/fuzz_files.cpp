/* Files: documents of the store, dumps, scenarios. */
#include "fuzz.h"

#include <cstring>
#include <windows.h>

#include <memory>

#include <oxni/base/algo.h>
#include <oxni/base/ejs.h>
#include <oxni/base/json.h>

#include "../engine/dump_mutate.h"
#include "base/text.h"
#include "disk/memory_disk.h"
#include "kernel_dump/kernel_dump.h"
#include "liboxnibase/host.h"
#include "play/load.h"
#include "scenario/scenario.h"

/* Header and text of an ".ejs" file. */
static std::string ejs_of(const std::string &text)
{
    uint32_t header[4] = {0x1a534a45, 1, static_cast<uint32_t>(text.size()),
                          oxni_crc32_calc(text.data(), text.size())};

    return std::string(reinterpret_cast<const char *>(header), sizeof(header)) + text;
}

static void open_ejs(void)
{
    oxnih_log_set_level(-1);
}

static void try_ejs(chance &chance, uint64_t)
{
    static const std::vector<const char *> keys = {"start_time", "data", "crash_info", "guard",
                                                   "dump_time",  "path", "count",      "status"};
    static const std::vector<const char *> words = {"guard", "C:\\\\x.dmp", "2024-03-07 09:00:00"};
    std::string path = fuzz_folder() + "fuzz.ejs", text = odd_json(keys, words, chance), bytes;

    if (chance.one_in(3))
        damage(&text, "{\"data\":{}}", chance);
    bytes = ejs_of(text);
    bool whole = chance.one_in(2);
    if (!whole)
        damage(&bytes, text, chance);
    memory_disk_file(path) = bytes;
    oxnih_memory_set_mode(chance.one_in(16) ? OXNIH_MEMORY_GUARD : OXNIH_MEMORY_PLAIN);
    json_t *document = wdu_json_load_file_ejs(path.c_str());
    if (document != nullptr && !json_is_object(document))
        violated("a document that is no object was loaded");
    if (document != nullptr && bytes.size() < 16)
        violated("a document was loaded from less than a header");
    /* What was read can be written, and is read again as it was. */
    if (document != nullptr && chance.one_in(4)) {
        if (wdu_json_dump_file_ejs(document, path.c_str()) != 0)
            violated("a document that was loaded cannot be written");
        json_t *again = wdu_json_load_file_ejs(path.c_str());
        if (again == nullptr)
            violated("a document that was written does not load");
        wdu_json_delete_ejs(again);
    }
    wdu_json_delete_ejs(document);
    oxnih_memory_stats stats;
    oxnih_memory_get_stats(&stats);
    if (stats.live_blocks != 0)
        violated("blocks are left of a document");
    if (chance.one_in(256))
        oxnih_memory_drop_all();
}
FUZZ_TARGET(ejs, open_ejs, try_ejs, 1, 400)

/* A dump that is damaged; places: where the reader looks, none for a small one. */
struct dump_subject {
    std::vector<uint8_t> whole;
    std::vector<uint64_t> places;
};

static std::vector<dump_subject> s_dumps;
static guarded *s_guarded;

static void add_dump(const memory_model &machine, uint32_t kind, enum memory_layout layout)
{
    s_dumps.push_back({machine.build(kind, layout), memory_vital_places(machine, layout)});
}

static void open_dumps(void)
{
    dump_model model;
    size_t most = 0;

    model.stack = {0xFFFFF80100010001, 0, 0xFFFFF80000000107, 5};
    s_dumps.push_back({dump_build(model), {}});
    const memory_model memory(model), large(model, 21);
    add_dump(memory, 1, MEMORY_RUNS);
    add_dump(large, 1, MEMORY_RUNS);
    add_dump(memory, 2, MEMORY_RUNS);
    add_dump(memory, 2, MEMORY_SDMP);
    add_dump(large, 5, MEMORY_FDMP);
    add_dump(memory, 6, MEMORY_SDMP);
    for (const dump_subject &subject : s_dumps)
        most = std::max(most, subject.whole.size());
    s_guarded = new guarded(most + (1 << 20));
}

/* Walks and names everything. */
static void look_at_dump(enum kernel_dump_error error, const kernel_dump &dump,
                         const std::string &reason)
{
    const std::vector<kernel_dump_frame> frames = kernel_dump_walk(dump, 99);

    if (reason.empty() != (error == KERNEL_DUMP_OK) || frames.empty() || frames.size() > 99)
        violated("result, reason and frames do not fit: " + reason);
    for (const std::string &gap : dump.gaps)
        if (error != KERNEL_DUMP_OK || gap.find_first_of("\n!+") != std::string::npos)
            violated("a gap that cannot be: " + gap);
    for (size_t i = 0; i < frames.size(); i++) {
        if (kernel_dump_call_site(dump, frames[i].instruction).find_first_of("\n!") !=
            std::string::npos)
            violated("a call site of more than a line");
        if (i > 0 && kernel_dump_module_at(dump, frames[i].instruction) == nullptr)
            violated("a frame in no module");
        (void)kernel_dump_stack_value(dump, frames[i].stack);
    }
}

static void try_dump(chance &chance, uint64_t)
{
    const dump_subject &subject = s_dumps[chance.one_in(2) ? 0 : chance.below(s_dumps.size())];
    std::vector<uint8_t> bytes = subject.whole;
    std::mt19937_64 random(chance.next());
    kernel_dump dump;
    std::string reason;

    if (subject.places.empty())
        dump_mutate(&bytes, &random);
    else
        memory_mutate(&bytes, subject.places, &random);
    size_t size = bytes.size();
    const uint8_t *block = s_guarded->put(bytes.data(), &size);
    look_at_dump(kernel_dump_read(block, size, &dump, &reason), dump, reason);
}
FUZZ_TARGET(dumps, open_dumps, try_dump, 1, 30000)

static std::vector<std::string> s_scenarios;

static void open_scenarios(void)
{
    static const char *const texts[] = {
        R"({"name": "a", "products": {"guard": {"modules": ["guard_flt"], "count": 3,
            "answers": {"bypass": null, "recover": {"status": "working", "after": 2}}}},
            "before": {"ends": "blue_screen", "crash": {"frames": ["nt!KeBugCheckEx+0x107"]}},
            "boots": [{"at": "2024-03-07T09:00:00Z", "log": {"start": 0, "winlogon": null},
            "steps": [{"at": 60, "expect": {"commands": [{"to": "guard", "type": "bypass"}],
            "documents": {"x.ejs": null}}}]}]})",
        R"({"machine": {"services": {"load_driver": ["stopped"]}, "registry": [{"key": "SYSTEM",
            "name": "n", "type": "REG_DWORD", "data": 4}], "files": [{"path": "C:\\a", "size": 3,
            "record_count": 2}], "events": [{"source": "s", "id": 7, "strings": ["a"],
            "padding": 9}], "engine": {"present": false, "fails": {"WaitForEvent": 2147500037}}},
            "management": {"link": true, "devices": [{"device_id": "d"}], "echo": null},
            "boots": [{"ends": "power_loss", "steps": [{"at": 1.5, "fail": "ReadEventLogW",
            "error": 5, "nth": 2, "times": 0}, {"at": 2, "fail_allocation": 3, "forever": true},
            {"at": 3, "console": "bypass -p"}, {"at": 4, "agent": "restart"}]}]})",
    };

    s_scenarios.assign(std::begin(texts), std::end(texts));
}

/* A scenario loads, or one line names the file and the mistake. */
static void try_scenario(chance &chance, uint64_t)
{
    static const std::vector<const char *> keys = {"name",  "machine", "products", "management",
                                                   "boots", "before",  "steps",    "at"};
    static const std::vector<const char *> words = {"clean", "start", "2024-03-07T09:00:00Z"};
    std::string path = fuzz_folder() + "fuzz.json", text = chance.of(s_scenarios);

    if (chance.one_in(4))
        text = odd_json(keys, words, chance);
    else
        damage(&text, chance.of(s_scenarios), chance);
    put_file(path, text);
    try {
        scenario scenario;

        scenario_load(scenario, path, {});
    } catch (const devhost_error &error) {
        if (std::string(error.what()).find("fuzz.json") == std::string::npos)
            violated(std::string("an error that names no file: ") + error.what());
    }
}
FUZZ_TARGET(scenarios, open_scenarios, try_scenario, 1, 400)
