/*
 * The states of files that a stop of the machine can leave. A document is written beside the old
 * one, flushed and moved over it; what was not flushed may be there in part, in any order, or not
 * at all. The recovery tag and a driver's crash record are written in their place.
 */
#include "fuzz.h"

#include <cstring>
#include <windows.h>

#include <oxni/base/ejs.h>
#include <oxni/base/json.h>
#include <oxni/base/time.h>

#include "../unit/import_patch.h"
#include "base/text.h"
#include "bypass_mgr_store.h"
#include "crash_config.h"
#include "disk/memory_disk.h"
#include "dump_record.h"
#include "liboxnibase/host.h"
#include "recover_tag.h"
#include "report_history.h"

static constexpr int SECTOR_BYTES = 512;
static constexpr int BOOT = 1709802000;

static std::string s_data, s_tag; /* the plug-in's data folder with a slash, the tag's path */
static std::string s_store[2], s_history[2], s_record[2]; /* the documents' bytes, old and new */
static FILETIME s_created;                                /* returned for every file */

static std::string get_file(const std::string &path)
{
    HANDLE file = CreateFileW(text_wide(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    std::string bytes(65536, '\0');
    DWORD got = 0;

    if (file == INVALID_HANDLE_VALUE || !ReadFile(file, &bytes[0], 65536, &got, nullptr))
        violated(path + " was not written");
    CloseHandle(file);
    bytes.resize(got);
    return bytes;
}

static BOOL WINAPI file_time(HANDLE, FILETIME *created, FILETIME *, FILETIME *)
{
    *created = s_created;
    return TRUE;
}

static void store(const char *product, int64_t count)
{
    suber_set record = {};
    std::string name = product;

    record.product_name = &name[0];
    record.status = STATUS_WORKING;
    record.count = count;
    bypass_mgr_store_product(&record);
}

static void open_states(void)
{
    static import_patch time("GetFileTime", file_time);
    std::string base = fuzz_memory.path + "base";

    oxnih_log_set_level(-1);
    oxnih_clock_simulate(133542756000000000ull, 1000);
    oxnih_set_install_dir((fuzz_memory.path + "agent\\bin").c_str());
    oxnih_set_log_dir(base.c_str());
    s_data = fuzz_memory.path + "agent\\var\\bypass_mgr\\";
    s_tag = base + "\\Quorvel\\OXNI3_CFG\\driver\\oxni_driver_recover";
    bypass_mgr_store_load(BOOT);
    store("guard", 3);
    s_store[0] = memory_disk_file(s_data + "bypass_mgr_persistence.ejs");
    for (int i = 0; i < 20; i++)
        store(("product" + std::to_string(i)).c_str(), i);
    store("guard", 2);
    bypass_mgr_store_crash("C:\\Windows\\Minidump\\1.dmp", "2024-03-07 09:00:00", "guard_flt");
    s_store[1] = memory_disk_file(s_data + "bypass_mgr_persistence.ejs");
    (void)upload_history_save("guard");
    s_history[0] = memory_disk_file(s_data + "bypass_mgr_upload.ejs");
    for (int i = 0; i < 30; i++)
        (void)upload_history_save(("product" + std::to_string(i)).c_str());
    s_history[1] = memory_disk_file(s_data + "bypass_mgr_upload.ejs");
    (void)set_dumprecord_time(5);
    s_record[0] = memory_disk_file(s_data + "bypass_mgr_dumprecord.ejs");
    (void)set_dumprecord_time(6);
    s_record[1] = memory_disk_file(s_data + "bypass_mgr_dumprecord.ejs");
    if (recover_tag_write() != 0)
        violated("the tag was not written");
}

/* What may stand in a file while bytes are on their way to it and nothing is flushed yet. */
static std::string unflushed(const std::string &bytes, chance &chance)
{
    std::string left = bytes.substr(0, chance.below(bytes.size() + 1));

    if (chance.one_in(2))
        left.resize(chance.below(bytes.size() + 1)); /* the length came before the bytes */
    for (size_t at = 0; at < left.size() && chance.one_in(2); at += SECTOR_BYTES) {
        size_t count = std::min<size_t>(SECTOR_BYTES, left.size() - at);

        for (size_t i = 0, kind = chance.below(3); i < count && kind != 0; i++)
            left[at + i] = kind == 1 ? '\0' : static_cast<char>(chance.next());
    }
    return left;
}

enum state {
    STATE_OLD,
    STATE_NEW,
    STATE_DAMAGED, /* no stop leaves it; a disk that forgets what it has confirmed does */
};

/* Puts one state of a document there. */
static enum state put_state(const std::string &path, const std::string (&bytes)[2], chance &chance)
{
    size_t moment = chance.below(10);

    memory_disk_delete(path + ".tmp");
    if (moment == 0) {
        std::string damaged = unflushed(bytes[1], chance);

        memory_disk_file(path) = damaged;
        return damaged == bytes[1] ? STATE_NEW : STATE_DAMAGED;
    }
    if (moment == 1) { /* moved */
        memory_disk_file(path) = bytes[1];
        return STATE_NEW;
    }
    memory_disk_file(path) = bytes[0];
    if (moment == 2) /* flushed, and not moved yet */
        memory_disk_file(path + ".tmp") = bytes[1];
    else if (moment > 3)
        memory_disk_file(path + ".tmp") = unflushed(bytes[1], chance);
    return STATE_OLD;
}

static void require(bool holds, const char *what)
{
    if (!holds)
        violated(what);
}

static void try_store(chance &chance)
{
    enum state state = put_state(s_data + "bypass_mgr_persistence.ejs", s_store, chance);
    crash_info crash = {};

    bypass_mgr_store_load(BOOT);
    int64_t expected = state == STATE_OLD ? 3 : state == STATE_NEW ? 2 : -1;
    require(bypass_mgr_stored_count("guard") == expected, "the store is a third one");
    require((bypass_mgr_stored_crash(&crash) == 0) == (state == STATE_NEW), "the crash is a third");
    require(bypass_mgr_stored_count("product7") == (state == STATE_NEW ? 7 : -1),
            "half of the store was read");
    if (!chance.one_in(8))
        return;
    store("guard", 9); /* with any temporary file next to it */
    bypass_mgr_store_load(BOOT);
    require(bypass_mgr_stored_count("guard") == 9, "nothing can be stored after the stop");
}

static void try_history(chance &chance)
{
    enum state state = put_state(s_data + "bypass_mgr_upload.ejs", s_history, chance);

    require(upload_history_need_report("guard") == (state == STATE_DAMAGED),
            "the history is a third one");
    require(upload_history_need_report("product7") == (state != STATE_NEW),
            "half of the history was read");
}

static void try_dump_record(chance &chance)
{
    enum state state = put_state(s_data + "bypass_mgr_dumprecord.ejs", s_record, chance);
    int64_t time = -1;

    require(get_dumprecord_time(&time) == (state != STATE_DAMAGED), "the dump record is missing");
    require(time == (state == STATE_OLD   ? 5
                     : state == STATE_NEW ? 6
                                          : -1),
            "the dump's time is a third one");
}

/* The tag counts only whole and with its own creation time. */
static void try_tag(chance &chance)
{
    static const std::string text = get_file(s_tag);
    std::string left = chance.one_in(3) ? text : unflushed(text, chance);
    bool dated = chance.one_in(2);
    FILETIME created;

    oxni_timet_to_filetime(oxni_time(), &created);
    LocalFileTimeToFileTime(&created, &s_created);
    if (!dated)
        s_created.dwHighDateTime += 1 + static_cast<DWORD>(chance.below(9));
    put_file(s_tag, left);
    require(recover_tag_check() == (dated && left == text),
            "a tag that is not whole counts, or a whole one does not");
}

static void try_crash_record(chance &chance)
{
    std::string path = fuzz_memory.path + "crash_config.cfg", old(50, 'o'), fresh(50, 'n');
    std::string left = chance.one_in(3) ? old : fresh.substr(0, chance.below(51));
    crash_config_record record = {};

    put_file(path, left);
    require(read_crash_config(&record, text_wide(path).c_str()) ==
                (left.size() == 50 ? CRASH_CONFIG_OK : CRASH_CONFIG_TOO_SHORT),
            "a crash record that is not whole was taken");
}

static void try_state(chance &chance, uint64_t)
{
    /* Those of real files are few: they take longest, and have few states. */
    if (chance.one_in(50))
        chance.one_in(2) ? try_tag(chance) : try_crash_record(chance);
    else if (chance.one_in(2))
        try_store(chance);
    else
        chance.one_in(2) ? try_history(chance) : try_dump_record(chance);
}
FUZZ_TARGET(states, open_states, try_state, 1, 400)
