/* The machine as the unit tests arrange it. */
#include "unit_support.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <gtest/gtest.h>

#include <oxni/base/log.h>

#include "liboxnibase/host.h"

static block s_log_bytes; /* what ReadEventLogW still has to give */
static std::string s_last_line;

static void require(bool condition, const char *what)
{
    if (condition)
        return;
    fprintf(stderr, "unit_support: %s, error %lu\n", what, GetLastError());
    abort();
}

static int every_level(void)
{
    SetLastError(0xBAD);
    return OXNI_LOG_DEBUG;
}

static void keep_line(int, const char *line, void *)
{
    s_last_line = line;
}

static HKEY s_machine_key;

/* For all tests: what is logged stays here, blocks are guarded, and HKEY_LOCAL_MACHINE is a key of
 * ours. */
struct unit_environment : public testing::Environment {
    void SetUp() override
    {
        const std::string path = "Software\\bypass_unit_" + std::to_string(GetCurrentProcessId());

        oxnih_log_set_sink(keep_line, NULL);
        oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
        require(RegCreateKeyA(HKEY_CURRENT_USER, path.c_str(), &s_machine_key) == 0 &&
                    RegOverridePredefKey(HKEY_LOCAL_MACHINE, s_machine_key) == 0,
                "machine key not redirected");
    }

    void TearDown() override
    {
        RegOverridePredefKey(HKEY_LOCAL_MACHINE, NULL);
        RegDeleteTreeW(s_machine_key, NULL);
        RegDeleteKeyW(s_machine_key, L"");
    }

    import_patch level{"oxni_log_level_get", every_level};
};
[[maybe_unused]] static testing::Environment *const s_environment =
    testing::AddGlobalTestEnvironment(new unit_environment);

const std::string &last_log_line(void)
{
    return s_last_line;
}

uint64_t live_blocks(void)
{
    oxnih_memory_stats stats;

    oxnih_memory_get_stats(&stats);
    return stats.live_blocks;
}

void registry_set(const wchar_t *path, const wchar_t *name, DWORD type, const std::string &bytes)
{
    /* Windows stores a terminator more when one follows what it is given. */
    const std::string guarded = bytes + "!!";

    require(RegSetKeyValueW(HKEY_LOCAL_MACHINE, path, name, type, guarded.data(),
                            (DWORD)bytes.size()) == 0,
            "value not set");
}

std::string wide_bytes(const std::wstring &text)
{
    return std::string(reinterpret_cast<const char *>(text.data()), text.size() * sizeof(wchar_t));
}

static void put_text(block *bytes, const std::wstring &text)
{
    const std::string from = wide_bytes(text + L'\0');

    bytes->insert(bytes->end(), from.begin(), from.end());
}

block event_record(uint32_t event_id, const std::wstring &source,
                   const std::vector<std::wstring> &strings)
{
    block bytes(sizeof(EVENTLOGRECORD));
    EVENTLOGRECORD header = {};

    put_text(&bytes, source);
    put_text(&bytes, L"COMPUTER");
    header.StringOffset = (DWORD)bytes.size();
    for (const std::wstring &text : strings)
        put_text(&bytes, text);
    bytes.resize((bytes.size() + 3) / 4 * 4 + sizeof(DWORD));
    header.Length = (DWORD)bytes.size();
    header.Reserved = 0x654c664c;
    header.TimeGenerated = header.TimeWritten = MOMENT;
    header.EventID = event_id;
    header.NumStrings = (WORD)strings.size();
    memcpy(bytes.data(), &header, sizeof(header));
    memcpy(&bytes[bytes.size() - sizeof(DWORD)], &header.Length, sizeof(DWORD));
    return bytes;
}

static HANDLE WINAPI open_log(const wchar_t *, const wchar_t *)
{
    return &s_log_bytes;
}

static BOOL WINAPI read_log(HANDLE, DWORD, DWORD, void *buffer, DWORD size, DWORD *filled,
                            DWORD *needed)
{
    if (s_log_bytes.empty() || s_log_bytes.size() > size) {
        *needed = (DWORD)s_log_bytes.size();
        SetLastError(s_log_bytes.empty() ? ERROR_HANDLE_EOF : ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    memcpy(buffer, s_log_bytes.data(), s_log_bytes.size());
    *filled = (DWORD)s_log_bytes.size();
    s_log_bytes.clear();
    return TRUE;
}

static BOOL WINAPI close_log(HANDLE)
{
    return TRUE;
}

system_log::system_log(const block &bytes)
    : open_("OpenEventLogW", open_log), read_("ReadEventLogW", read_log),
      close_("CloseEventLog", close_log)
{
    s_log_bytes = bytes;
}

template <typename Function> static Function engine_export(const char *name)
{
    const HMODULE engine = LoadLibraryW(L"dbgeng.dll");
    void *function = reinterpret_cast<void *>(GetProcAddress(engine, name));

    require(function != NULL, "dbgeng.dll is not the stand-in");
    return reinterpret_cast<Function>(function);
}

void engine_play(const wchar_t *dump, const char *stack, const char *failing, HRESULT result)
{
    const engine_script_stack stacks = {dump, stack};
    const engine_script_fault fault = {failing, result};
    engine_script script = {};

    script.struct_bytes = sizeof(script);
    script.stacks = &stacks;
    script.stack_count = 1;
    script.faults = &fault;
    script.fault_count = failing != NULL ? 1 : 0;
    require(engine_export<engine_script_set_fn>("engine_script_set")(&script) == S_OK,
            "the engine refuses its script");
}

size_t engine_left(void)
{
    engine_counts counts;

    engine_export<engine_counts_get_fn>("engine_counts_get")(&counts);
    return counts.objects + counts.references + counts.callbacks;
}
