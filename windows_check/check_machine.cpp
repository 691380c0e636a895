/* Checks of the event log, processes, the token and services. */
#include "conformance.h"

#include <tlhelp32.h>

#include <vector>

static constexpr uint32_t READ_BYTES = 0x10000u;
static constexpr uint32_t MAX_READ_BYTES = 0x7ffffu; /* documented for ReadEventLogW */
static constexpr uint32_t UNTOUCHED = 0x5a5a5a5au;
static constexpr uint32_t SECURITY_LUID = 8u;
static constexpr uint32_t SYSTEM_PROCESS = 4u;
static constexpr uint32_t NO_PROCESS = 0xfffffffcu;

struct log_read {
    DWORD error, read, needed;
};

static log_read read_log(HANDLE log, DWORD flags, DWORD offset, void *buffer, DWORD bytes)
{
    log_read result = {0, UNTOUCHED, UNTOUCHED};

    result.error =
        error_if(!ReadEventLogW(log, flags, offset, buffer, bytes, &result.read, &result.needed));
    return result;
}

/* Whether a record's parts lie where its header says, inside the record. */
static bool is_record_sound(const BYTE *at, DWORD filled)
{
    EVENTLOGRECORD head;
    DWORD closing;

    if (filled < sizeof(head))
        return false;
    memcpy(&head, at, sizeof(head));
    if (head.Length > filled || head.Length < sizeof(head) + sizeof(DWORD) || head.Length % 4 != 0)
        return false;
    memcpy(&closing, at + head.Length - sizeof(DWORD), sizeof(closing));
    return closing == head.Length && head.Reserved == 0x654c664c &&
           head.StringOffset >= sizeof(head) && head.StringOffset <= head.Length &&
           head.UserSidOffset + head.UserSidLength <= head.Length &&
           head.DataOffset + head.DataLength <= head.Length;
}

static DWORD first_number(const std::vector<BYTE> &block)
{
    EVENTLOGRECORD head;

    memcpy(&head, block.data(), sizeof(head));
    return head.RecordNumber;
}

static void check_reading(conformance &run, HANDLE log)
{
    const DWORD backwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ;
    const DWORD forwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ;
    std::vector<BYTE> block(MAX_READ_BYTES + 1), other(READ_BYTES);
    log_read read;
    static const struct {
        const char *when;
        DWORD flags;
    } refused[] = {
        {"no direction",                     EVENTLOG_SEQUENTIAL_READ               },
        {"both directions",
         EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ | EVENTLOG_FORWARDS_READ},
        {"seeking and sequentially",
         EVENTLOG_SEEK_READ | EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ    },
        {"neither seeking nor sequentially", EVENTLOG_BACKWARDS_READ                },
    };

    for (const auto &row : refused) {
        read = read_log(log, row.flags, 0, block.data(), READ_BYTES);
        run.gives("ReadEventLogW", row.when, read.error, {ERROR_INVALID_PARAMETER}, OBSERVED);
    }
    read = read_log(log, backwards, 0, nullptr, READ_BYTES);
    run.gives("ReadEventLogW", "no buffer", read.error, {ERROR_INVALID_PARAMETER}, OBSERVED);
    run.gives("ReadEventLogW", "no buffer: bytes read", read.read, {UNTOUCHED}, OBSERVED);
    run.gives("ReadEventLogW", "no buffer: bytes needed", read.needed, {UNTOUCHED}, OBSERVED);
    read = read_log(log, backwards, 0, block.data(), MAX_READ_BYTES + 1);
    run.gives("ReadEventLogW", "a buffer above 0x7ffff bytes", read.error, {}, OPEN);
    read = read_log(no_handle(), backwards, 0, block.data(), READ_BYTES);
    run.gives("ReadEventLogW", "a handle that is none", read.error, {ERROR_INVALID_HANDLE});
    read = read_log(log, backwards, 0, block.data(), 1);
    run.gives("ReadEventLogW", "a buffer of one byte", read.error,
              {ERROR_INSUFFICIENT_BUFFER, ERROR_HANDLE_EOF});
    run.holds("ReadEventLogW", "a buffer of one byte: the need is returned",
              read.error == ERROR_HANDLE_EOF || (read.needed > 56 && read.needed <= 0x10000));
    read = read_log(log, backwards, 0, block.data(), READ_BYTES);
    run.gives("ReadEventLogW", "backwards", read.error, {0, ERROR_HANDLE_EOF});
    if (read.error != ERROR_SUCCESS)
        return;
    run.holds("ReadEventLogW", "backwards: the record is sound",
              is_record_sound(block.data(), read.read));
    const DWORD newest = first_number(block);
    HANDLE second = OpenEventLogW(nullptr, L"System");
    read = read_log(second, forwards, 0, other.data(), READ_BYTES);
    run.gives("ReadEventLogW", "forwards", read.error, {0});
    run.holds("ReadEventLogW", "forwards begins with the oldest",
              read.error == 0 && first_number(other) <= newest);
    read = read_log(second, EVENTLOG_SEEK_READ | EVENTLOG_BACKWARDS_READ, newest, other.data(),
                    READ_BYTES);
    run.gives("ReadEventLogW", "seeking the newest", read.error, {0});
    run.holds("ReadEventLogW", "seeking the newest gives it",
              read.error == 0 && first_number(other) == newest);
    read = read_log(second, EVENTLOG_SEEK_READ | EVENTLOG_BACKWARDS_READ, 0xfffffff0, other.data(),
                    READ_BYTES);
    run.gives("ReadEventLogW", "seeking a number that no record has", read.error,
              {ERROR_INVALID_PARAMETER, ERROR_HANDLE_EOF});
    CloseEventLog(second);
}

void check_event_log(conformance &run)
{
    HANDLE log = OpenEventLogW(nullptr, L"System");

    run.works("OpenEventLogW", "System", log != nullptr);
    run.gives("OpenEventLogW", "no source",
              opening_error(OpenEventLogW(nullptr, nullptr), CloseEventLog),
              {ERROR_INVALID_PARAMETER}, OBSERVED);
    run.gives("OpenEventLogW", "an unknown source opens Application",
              opening_error(OpenEventLogW(nullptr, L"no such source of events"), CloseEventLog),
              {0});
    run.gives("OpenEventLogW", "an empty server is this machine",
              opening_error(OpenEventLogW(L"", L"System"), CloseEventLog), {0}, OBSERVED);
    if (log != nullptr) {
        check_reading(run, log);
        run.works("CloseEventLog", "an open log", CloseEventLog(log));
    }
    run.fails("CloseEventLog", "a handle that is none", CloseEventLog(no_handle()),
              {ERROR_INVALID_HANDLE});
}

static void check_snapshot(conformance &run, HANDLE snapshot)
{
    PROCESSENTRY32W entry = {};
    bool own = false, threads = true, system = false;

    entry.dwSize = sizeof(entry) - 1;
    run.fails("Process32FirstW", "a structure that is too small", Process32FirstW(snapshot, &entry),
              {ERROR_BAD_LENGTH, ERROR_INSUFFICIENT_BUFFER});
    entry.dwSize = sizeof(entry);
    run.works("Process32FirstW", "the first entry", Process32FirstW(snapshot, &entry));
    run.gives("Process32FirstW", "the size stays", entry.dwSize, {sizeof(entry)});
    do {
        own = own || entry.th32ProcessID == GetCurrentProcessId();
        threads = threads && (entry.cntThreads > 0 || entry.th32ProcessID == 0);
        system = system || entry.th32ProcessID == SYSTEM_PROCESS;
    } while (Process32NextW(snapshot, &entry));
    run.gives("Process32NextW", "after the last entry", GetLastError(), {ERROR_NO_MORE_FILES});
    run.holds("CreateToolhelp32Snapshot", "holds the own process", own, OBSERVED);
    run.holds("CreateToolhelp32Snapshot", "each process has a thread", threads, OBSERVED);
    run.holds("CreateToolhelp32Snapshot", "holds System, process 4", system, OBSERVED);
    run.works("CloseHandle", "a snapshot", CloseHandle(snapshot));
}

static DWORD times_error(HANDLE process)
{
    FILETIME creation = {}, exited = {}, kernel = {}, user = {};

    return error_if(!GetProcessTimes(process, &creation, &exited, &kernel, &user));
}

void check_processes(conformance &run)
{
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);

    run.works("CreateToolhelp32Snapshot", "processes", snapshot != INVALID_HANDLE_VALUE);
    check_snapshot(run, snapshot);
    snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS | TH32CS_SNAPTHREAD, 0);
    run.works("CreateToolhelp32Snapshot", "processes and more", snapshot != INVALID_HANDLE_VALUE);
    CloseHandle(snapshot);
    run.gives("OpenProcess", "process 0",
              opening_error(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, 0), CloseHandle),
              {ERROR_INVALID_PARAMETER});
    run.gives("OpenProcess", "a process that is none",
              opening_error(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, NO_PROCESS),
                            CloseHandle),
              {ERROR_INVALID_PARAMETER});
    run.gives(
        "OpenProcess", "System, full queries",
        opening_error(OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, SYSTEM_PROCESS), CloseHandle),
        {ERROR_ACCESS_DENIED}, OBSERVED);
    run.gives("OpenProcess", "System, limited queries",
              opening_error(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, SYSTEM_PROCESS),
                            CloseHandle),
              {0, ERROR_ACCESS_DENIED});
    run.gives("GetProcessTimes", "the own process", times_error(GetCurrentProcess()), {0});
    run.gives("GetProcessTimes", "a handle that is none", times_error(no_handle()),
              {ERROR_INVALID_HANDLE});
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, GetCurrentProcessId());
    run.gives("GetProcessTimes", "a handle without a right to query", times_error(process),
              {ERROR_ACCESS_DENIED});
    CloseHandle(process);
    run.gives("GetCurrentProcess", "the pseudo-handle",
              reinterpret_cast<uintptr_t>(GetCurrentProcess()), {UINTPTR_MAX});
    run.fails("CloseHandle", "a handle that is none", CloseHandle(no_handle()),
              {ERROR_INVALID_HANDLE});
}

/* The last error of an adjustment, also when it succeeds, and what it changed. */
static DWORD adjust(HANDLE token, DWORD luid, DWORD attributes, TOKEN_PRIVILEGES *previous,
                    bool *done)
{
    TOKEN_PRIVILEGES wanted = {};
    DWORD bytes = 0;

    wanted.PrivilegeCount = 1;
    wanted.Privileges[0] = {
        {luid, 0},
        attributes
    };
    SetLastError(UNTOUCHED);
    *done =
        AdjustTokenPrivileges(token, FALSE, &wanted, previous != nullptr ? sizeof(*previous) : 0,
                              previous, previous != nullptr ? &bytes : nullptr) != 0;
    return GetLastError();
}

static void check_adjusting(conformance &run, HANDLE token)
{
    TOKEN_PRIVILEGES previous = {};
    bool done;
    DWORD error = adjust(token, 0x7777, SE_PRIVILEGE_ENABLED, nullptr, &done);

    run.holds("AdjustTokenPrivileges", "an unknown privilege succeeds", done);
    run.gives("AdjustTokenPrivileges", "an unknown privilege: last error", error,
              {ERROR_NOT_ALL_ASSIGNED});
    error = adjust(token, SECURITY_LUID, SE_PRIVILEGE_ENABLED, &previous, &done);
    run.gives("AdjustTokenPrivileges", "enabling: last error", error,
              {ERROR_SUCCESS, ERROR_NOT_ALL_ASSIGNED});
    if (error != ERROR_SUCCESS)
        return;
    run.gives("AdjustTokenPrivileges", "enabling: what changed", previous.PrivilegeCount, {0, 1});
    error = adjust(token, SECURITY_LUID, SE_PRIVILEGE_ENABLED, &previous, &done);
    run.gives("AdjustTokenPrivileges", "enabling again changes nothing", previous.PrivilegeCount,
              {0}, OBSERVED);
    error = adjust(token, SECURITY_LUID, 0, &previous, &done);
    run.gives("AdjustTokenPrivileges", "disabling: what changed", previous.PrivilegeCount, {1},
              OBSERVED);
    run.gives("AdjustTokenPrivileges", "disabling: the previous attributes",
              previous.Privileges[0].Attributes & SE_PRIVILEGE_ENABLED, {SE_PRIVILEGE_ENABLED},
              OBSERVED);
}

void check_token(conformance &run)
{
    HANDLE token = nullptr, query_only = nullptr, none = nullptr;
    LUID luid = {};
    bool done;

    run.works("OpenProcessToken", "adjusting and querying",
              OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token));
    run.works("OpenProcessToken", "querying only",
              OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &query_only));
    run.fails("OpenProcessToken", "a handle that is none",
              OpenProcessToken(no_handle(), TOKEN_QUERY, &none), {ERROR_INVALID_HANDLE});
    run.works("LookupPrivilegeValueA", "SeSecurityPrivilege",
              LookupPrivilegeValueA(nullptr, "SeSecurityPrivilege", &luid));
    run.gives("LookupPrivilegeValueA", "SeSecurityPrivilege: its LUID", luid.LowPart,
              {SECURITY_LUID}, OBSERVED);
    run.works("LookupPrivilegeValueA", "the case of a name is ignored",
              LookupPrivilegeValueA(nullptr, "SESECURITYPRIVILEGE", &luid), OBSERVED);
    run.fails("LookupPrivilegeValueA", "an unknown name",
              LookupPrivilegeValueA(nullptr, "SeNoSuchPrivilege", &luid),
              {ERROR_NO_SUCH_PRIVILEGE});
    run.gives("AdjustTokenPrivileges", "a handle without the right",
              adjust(query_only, SECURITY_LUID, SE_PRIVILEGE_ENABLED, nullptr, &done),
              {ERROR_ACCESS_DENIED});
    run.gives("AdjustTokenPrivileges", "a handle that is none",
              adjust(no_handle(), SECURITY_LUID, SE_PRIVILEGE_ENABLED, nullptr, &done),
              {ERROR_INVALID_HANDLE});
    run.fails("AdjustTokenPrivileges", "no state",
              AdjustTokenPrivileges(token, FALSE, nullptr, 0, nullptr, nullptr),
              {ERROR_INVALID_PARAMETER}, OBSERVED);
    check_adjusting(run, token);
    CloseHandle(query_only);
    run.works("CloseHandle", "a token", CloseHandle(token));
}

static DWORD open_manager(const wchar_t *database)
{
    return opening_error(OpenSCManagerW(nullptr, database, SC_MANAGER_CONNECT), CloseServiceHandle);
}

static DWORD open_service(SC_HANDLE manager, const wchar_t *name)
{
    return opening_error(OpenServiceW(manager, name, SERVICE_QUERY_STATUS), CloseServiceHandle);
}

/* Every Windows has this service; the scenario of the development host, too. */
static constexpr wchar_t KNOWN_SERVICE[] = L"EventLog";

static void check_query(conformance &run, SC_HANDLE manager)
{
    SERVICE_STATUS status = {};
    SC_HANDLE service = OpenServiceW(manager, KNOWN_SERVICE, SERVICE_QUERY_STATUS);

    run.gives("OpenServiceW", "a service in another case", open_service(manager, L"eVENTlOG"), {0});
    run.works("QueryServiceStatus", "a service", QueryServiceStatus(service, &status));
    run.gives("QueryServiceStatus", "a service: its state", status.dwCurrentState,
              {SERVICE_STOPPED, SERVICE_RUNNING, SERVICE_START_PENDING});
    CloseServiceHandle(service);
    service = OpenServiceW(manager, KNOWN_SERVICE, SERVICE_QUERY_CONFIG);
    run.fails("QueryServiceStatus", "a handle without the right",
              QueryServiceStatus(service, &status), {ERROR_ACCESS_DENIED});
    CloseServiceHandle(service);
    run.fails("QueryServiceStatus", "the manager's handle", QueryServiceStatus(manager, &status),
              {ERROR_INVALID_HANDLE});
}

void check_services(conformance &run)
{
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);

    run.works("OpenSCManagerW", "connecting", manager != nullptr);
    run.gives("OpenSCManagerW", "the active database by name", open_manager(L"ServicesActive"),
              {0});
    run.gives("OpenSCManagerW", "an unknown database", open_manager(L"no such database"),
              {ERROR_INVALID_NAME}, OBSERVED);
    run.gives("OpenSCManagerW", "the failed database", open_manager(L"ServicesFailed"),
              {ERROR_DATABASE_DOES_NOT_EXIST}, OBSERVED);
    run.gives("OpenServiceW", "an empty name", open_service(manager, L""), {ERROR_INVALID_NAME},
              OBSERVED);
    run.gives("OpenServiceW", "a name with a backslash", open_service(manager, L"a\\b"),
              {ERROR_INVALID_NAME});
    run.gives("OpenServiceW", "a service that is none",
              open_service(manager, L"no_such_service_here"), {ERROR_SERVICE_DOES_NOT_EXIST});
    check_query(run, manager);
    run.works("CloseServiceHandle", "the manager", CloseServiceHandle(manager));
    run.fails("CloseServiceHandle", "a closed handle", CloseServiceHandle(manager),
              {ERROR_INVALID_HANDLE});
}
