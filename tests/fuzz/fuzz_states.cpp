/*
 * The states of files that a stop of the machine can leave. A document is written beside the old
 * one, flushed and moved over it; what was not flushed may be there in part, in any order, or not
 * at all. The recovery tag is written in its place, as a driver's crash record is (target "records").
 */
#include "fuzz.h"

#include <cstring>
#include <windows.h>

#include <oxni/base/time.h>

#include "../unit/import_patch.h"
#include "base/text.h"
#include "bypass_mgr_store.h"
#include "disk/memory_disk.h"
#include "dump_record.h"
#include "liboxnibase/host.h"
#include "recover_tag.h"
#include "report_history.h"

static constexpr int SECTOR_BYTES = 512;
static constexpr int BOOT = 1709802000;

enum state {
    STATE_OLD,
    STATE_NEW,
    STATE_DAMAGED, /* no stop leaves it; a disk that forgets what it has confirmed does */
};

static std::string s_tag, s_tag_text; /* its path and content */
static FILETIME s_created;            /* returned for every file */

static void require(bool holds, const char *what)
{
    if (!holds)
        violated(what);
}

static void store(const std::string &product, int64_t count)
{
    suber_set record = {};
    std::string name = product;

    record.product_name = &name[0];
    record.status = STATUS_WORKING;
    record.count = count;
    bypass_mgr_store_product(&record);
}

static void write_store(bool is_new)
{
    if (!is_new) {
        bypass_mgr_store_load(BOOT);
        store("guard", 3);
        return;
    }
    for (int i = 0; i < 20; i++)
        store("product" + std::to_string(i), i);
    store("guard", 2);
    bypass_mgr_store_crash("C:\\Windows\\Minidump\\1.dmp", "2024-03-07 09:00:00", "guard_flt");
}

static void check_store(enum state state, chance &chance)
{
    static const int64_t counts[] = {3, 2, -1};
    crash_info crash = {};

    bypass_mgr_store_load(BOOT);
    require(bypass_mgr_stored_count("guard") == counts[state], "the store is a third one");
    require((bypass_mgr_stored_crash(&crash) == 0) == (state == STATE_NEW), "the crash is a third");
    require(bypass_mgr_stored_count("product7") == (state == STATE_NEW ? 7 : -1),
            "half of the store was read");
    if (!chance.one_in(8))
        return;
    store("guard", 9); /* with any temporary file next to it */
    bypass_mgr_store_load(BOOT);
    require(bypass_mgr_stored_count("guard") == 9, "nothing can be stored after the stop");
}

static void write_history(bool is_new)
{
    (void)upload_history_save("guard");
    for (int i = 0; i < 30 && is_new; i++)
        (void)upload_history_save(("product" + std::to_string(i)).c_str());
}

static void check_history(enum state state, chance &)
{
    require(upload_history_need_report("guard") == (state == STATE_DAMAGED),
            "the history is a third one");
    require(upload_history_need_report("product7") == (state != STATE_NEW),
            "half of the history was read");
}

static void write_dump_record(bool is_new)
{
    (void)set_dumprecord_time(is_new ? 6 : 5);
}

static void check_dump_record(enum state state, chance &)
{
    static const int64_t times[] = {5, 6, -1};
    int64_t time = -1;

    require(get_dumprecord_time(&time) == (state != STATE_DAMAGED), "the dump record is missing");
    require(time == times[state], "the dump's time is a third one");
}

static struct {
    const char *file;
    void (*write)(bool is_new);
    void (*check)(enum state state, chance &chance);
    std::string path, bytes[2]; /* old and new */
} s_documents[] = {
    {"bypass_mgr_persistence.ejs", write_store,       check_store,       "", {}},
    {"bypass_mgr_upload.ejs",      write_history,     check_history,     "", {}},
    {"bypass_mgr_dumprecord.ejs",  write_dump_record, check_dump_record, "", {}},
};

static void open_states(void)
{
    static const import_patch time("GetFileTime",
                                   [](HANDLE, FILETIME *created, FILETIME *, FILETIME *) {
                                       *created = s_created;
                                       return TRUE;
                                   });
    const std::string base = fuzz_memory.path + "base";

    oxnih_log_set_level(-1);
    oxnih_clock_simulate(133542756000000000ull, 1000);
    oxnih_set_install_dir((fuzz_memory.path + "agent\\bin").c_str());
    oxnih_set_log_dir(base.c_str());
    for (auto &document : s_documents) {
        document.path = fuzz_memory.path + "agent\\var\\bypass_mgr\\" + document.file;
        for (const bool is_new : {false, true}) {
            document.write(is_new);
            document.bytes[is_new] = memory_disk_file(document.path);
        }
    }
    s_tag = base + "\\Quorvel\\OXNI3_CFG\\driver\\oxni_driver_recover";
    if (recover_tag_write() != 0)
        violated("the tag was not written");
    s_tag_text = memory_disk_file(s_tag);
}

/* Possible contents of a file before its bytes are flushed. */
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

/* Puts one state of a document there. */
static enum state put_state(const std::string &path, const std::string (&bytes)[2], chance &chance)
{
    const size_t moment = chance.below(10);
    const std::string damaged = unflushed(bytes[1], chance);

    memory_disk_delete(path + ".tmp");
    if (moment > 1) {
        memory_disk_file(path) = bytes[0];
        if (moment > 2) /* flushed or not, and not moved yet */
            memory_disk_file(path + ".tmp") = moment == 3 ? bytes[1] : damaged;
        return STATE_OLD;
    }
    memory_disk_file(path) = moment == 0 ? damaged : bytes[1];
    return moment == 0 && damaged != bytes[1] ? STATE_DAMAGED : STATE_NEW;
}

/* The tag counts only whole and with its own creation time. */
static void try_tag(chance &chance)
{
    const std::string left = chance.one_in(3) ? s_tag_text : unflushed(s_tag_text, chance);
    const bool dated = chance.one_in(2);
    FILETIME created;

    oxni_timet_to_filetime(oxni_time(), &created);
    LocalFileTimeToFileTime(&created, &s_created);
    if (!dated)
        s_created.dwHighDateTime += 1 + static_cast<DWORD>(chance.below(9));
    memory_disk_file(s_tag) = left;
    require(recover_tag_check() == (dated && left == s_tag_text),
            "a tag that is not whole counts, or a whole one does not");
}

static void try_state(chance &chance, uint64_t)
{
    if (chance.one_in(20)) {
        try_tag(chance);
        return;
    }
    const auto &document = chance.of(s_documents);

    document.check(put_state(document.path, document.bytes, chance), chance);
}
FUZZ_TARGET(states, open_states, try_state, 1, 400)
