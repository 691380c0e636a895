/* Files: documents of the store, scenarios. */
#include "fuzz.h"

#include <cstring>
#include <windows.h>

#include <algorithm>
#include <filesystem>

#include <zlib.h>

#include <oxni/base/algo.h>
#include <oxni/base/ejs.h>
#include <oxni/base/json.h>

#include "base/text.h"
#include "disk/memory_disk.h"
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
    std::string path = fuzz_memory.path + "fuzz.ejs", text = odd_json(keys, words, chance), bytes;

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

static constexpr size_t MOST_SUMMED_BYTES = 2000;

/* Any length at any alignment, up to an inaccessible page: as zlib, which takes a byte at a time. */
static void try_crc32(chance &chance, uint64_t)
{
    std::string bytes(chance.below(MOST_SUMMED_BYTES), '\0');
    size_t size = bytes.size() + chance.below(64);
    uLong sum = 0;

    for (char &byte : bytes)
        byte = static_cast<char>(chance.next());
    bytes.resize(size);
    const uint8_t *block = fuzz_guarded(bytes.data(), size);
    size -= chance.below(std::min<size_t>(size, 64) + 1);
    for (size_t i = 0; i < size; i++)
        sum = crc32(sum, block + i, 1);
    if (oxni_crc32_calc(block, size) != sum)
        violated("another checksum of " + std::to_string(size) + " bytes");
}
FUZZ_TARGET(crc32, nullptr, try_crc32, 1, 5000)

static std::vector<std::string> s_scenarios;

static void open_scenarios(void)
{
    for (const auto &entry : std::filesystem::directory_iterator(SCENARIOS))
        if (entry.path().extension() == ".json")
            s_scenarios.push_back(file_bytes(entry.path().u8string()));
}

/* A scenario loads, or one line names the file and the mistake. */
static void try_scenario(chance &chance, uint64_t)
{
    static const std::vector<const char *> keys = {"name",  "machine", "products", "management",
                                                   "boots", "before",  "steps",    "at"};
    static const std::vector<const char *> words = {"clean", "start", "2024-03-07T09:00:00Z"};
    const std::string path = fuzz_memory.path + "fuzz.json";

    memory_disk_file(path) =
        chance.one_in(4) ? odd_json(keys, words, chance) : damaged(s_scenarios, chance);
    try {
        scenario scenario;

        scenario_load(scenario, path, {});
    } catch (const devhost_error &error) {
        if (std::string(error.what()).find("fuzz.json") == std::string::npos)
            violated(std::string("an error that names no file: ") + error.what());
    }
}
FUZZ_TARGET(scenarios, open_scenarios, try_scenario, 1, 400)
