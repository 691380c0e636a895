/* What the plug-in reads of others, by its own objects: the event log, the debugger's text, a
 * driver's crash record. */
#include "fuzz.h"

#include <cstring>
#include <windows.h>

#include "analyze_dmp.h"
#include "crash_config.h"
#include "win_event_parse.h"

#include "../unit/system_log.h"
#include "liboxnibase/host.h"
#include "base/text.h"
#include "disk/memory_disk.h"

/* A record of an event that the plug-in expects, or of another one. */
static std::string event(chance &chance)
{
    const std::string source = chance.word("BugCheck Microsoft-Windows-Kernel-General Other "
                                           "Microsoft-Windows-Kernel-Power "
                                           "Microsoft-Windows-Winlogon");
    static const uint32_t ids[] = {12, 41, 1001, 7001, 7036, 0x400003e9};
    static const DWORD lengths[] = {0, 1, 4, 55, 56, 57, 0x7fffffff, 0xffffffff};
    std::vector<std::wstring> strings(chance.below(5));

    for (std::wstring &text : strings)
        text = std::wstring(chance.below(chance.one_in(20) ? 3000 : 40), L'x');
    const block record =
        event_record(chance.of(ids), text_wide(chance.one_in(6) ? "" : source), strings);
    std::string bytes(record.begin(), record.end());

    if (chance.one_in(30)) {
        const DWORD length = chance.of(lengths);
        memcpy(&bytes[0], &length, sizeof(length));
        memcpy(&bytes[bytes.size() - sizeof(length)], &length, sizeof(length));
    }
    return bytes;
}

static void open_events(void)
{
    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
}

static const event_key s_expected_keys[] = {
    {12,   L"Microsoft-Windows-Kernel-General"},
    {41,   L"Microsoft-Windows-Kernel-Power"  },
    {1001, L"BugCheck"                        },
    {7001, nullptr                            },
};
static const expected_event_map s_expected = {s_expected_keys, ARRAYSIZE(s_expected_keys)};

/* What is found must lie inside the block. */
static void look_through(const uint8_t *bytes, size_t size)
{
    uint32_t id = 0;
    const wchar_t *provider = nullptr;
    const uint8_t *record = nullptr;

    if (find_expected_event(bytes, static_cast<uint32_t>(size), &id, &provider, &record,
                            s_expected) != 0)
        return;
    if (record < bytes || record + sizeof(EVENTLOGRECORD) > bytes + size)
        violated("a record outside the block was found");
    if (wcsnlen(provider, static_cast<size_t>(bytes + size - record)) == 0 && id != 7001)
        violated("a record without a source was found");
}

static void try_event(chance &chance, uint64_t)
{
    std::string log, other = event(chance);

    for (size_t left = chance.below(4); left > 0; left--)
        log += event(chance);
    log += other;
    if (!chance.one_in(16))
        damage(&log, other, chance);
    look_through(fuzz_guarded(log.data(), log.size()), log.size());
    /* In the plug-in's own buffer, which ends with the block when it has to grow for it. */
    if (chance.one_in(4)) {
        event_info info = {};

        if (chance.one_in(2))
            log.resize(4097 + chance.below(9000), 'y');
        const system_log given({log.begin(), log.end()});
        (void)win_event_parse().get_crash_info(&info, s_expected);
    }
    if (chance.one_in(256))
        oxnih_memory_drop_all();
}
FUZZ_TARGET(events, open_events, try_event, 1, 400)

static std::string stack_text(chance &chance)
{
    static const char *const pieces[] = {"Call Site\n",
                                         "Stack unwind",
                                         "guard_flt+0x1a2b\n",
                                         "nt!KeBugCheckEx+0x107\n",
                                         "!",
                                         "+",
                                         "\n",
                                         "\r\n",
                                         "\t",
                                         "0x0 : ",
                                         "vault_fs!x",
                                         "Child-SP RetAddr ",
                                         "\xff\xfe",
                                         "%s%n",
                                         "Call Site"};
    std::string text;

    for (size_t left = chance.below(30); left > 0; left--)
        text += chance.of(pieces);
    if (chance.one_in(200))
        text += std::string(100000, 'm') + "!";
    return text;
}

static void try_stack(chance &chance, uint64_t)
{
    std::string text = stack_text(chance);
    crash_module_set modules = {"left over"};

    if (chance.one_in(2))
        damage(&text, "Call Site\nguard!x\n", chance);
    bool found = get_module_set_from_dmp_info(text, &modules);
    if (found == modules.empty())
        violated("the result and the modules do not fit");
    for (const std::string &module : modules)
        if (module.find_first_of("!\n") != std::string::npos ||
            text.find(module) == std::string::npos)
            violated("a module that is not in the text: " + module);
}
FUZZ_TARGET(debugger, nullptr, try_stack, 1, 400)

static void try_record(chance &chance, uint64_t)
{
    std::string path = fuzz_memory.path + "crash_config.cfg";
    std::string bytes(chance.below(120), '\0');
    crash_config_record record = {};

    for (char &byte : bytes)
        byte = static_cast<char>(chance.next());
    memory_disk_file(path) = bytes;
    int result = read_crash_config(&record, text_wide(path).c_str());
    if (result != (bytes.size() < sizeof(record) ? CRASH_CONFIG_TOO_SHORT : CRASH_CONFIG_OK))
        violated("a record was taken for another length");
    if (!chance.one_in(16))
        return;
    record.count = static_cast<uint32_t>(chance.next());
    crash_config_record written = record, again = {};
    if (write_crash_config(&written, text_wide(path).c_str()) != CRASH_CONFIG_OK ||
        read_crash_config(&again, text_wide(path).c_str()) != CRASH_CONFIG_OK ||
        memcmp(&again, &record, sizeof(record)) != 0)
        violated("a record that was written is not read as it was");
}
FUZZ_TARGET(records, nullptr, try_record, 1, 400)
