/* Every redirected call of the plug-in passes through run_call. Host's one thread. */
#include "calls.h"

#include <cstdint>
#include <cstring>

#include <array>
#include <map>
#include <string_view>
#include <utility>

#include <oxni/base/subscriber.h>

#include "../base/text.h"
#include "calls_table.h"
#include "imports.h"
#include "privileges.h"

/* More than any call of the table takes, log lines included. Reading the places of arguments that
 * were not passed reads what lies above them on the caller's stack, which is not used. */
static constexpr int ARGUMENTS = 18;
static constexpr size_t ROWS = sizeof(s_rows) / sizeof(s_rows[0]);

typedef uint64_t (*any_call_fn)(uint64_t, uint64_t, uint64_t, uint64_t, uint64_t, uint64_t,
                                uint64_t, uint64_t, uint64_t, uint64_t, uint64_t, uint64_t,
                                uint64_t, uint64_t, uint64_t, uint64_t, uint64_t, uint64_t);

/* A planned failure: calls first to last of its name and arguments from now on. */
struct planned_failure {
    uint64_t first;
    uint64_t last;
    uint32_t error;
    std::string with; /* pattern of the arguments; empty: all calls */
    uint64_t seen;    /* calls with these arguments so far */
};

/* What each call reads comes first, in one line of the cache. */
struct alignas(64) call_state {
    any_call_fn target; /* stand-in or real function; nullptr until a plug-in imports it */
    uint64_t total;     /* ever */
    const struct handle_call *handles; /* nullptr: neither opens nor closes */
    calls_watch_fn watch;
    std::vector<planned_failure> failures;
    uint64_t failed; /* ever: made to fail */
    uint64_t since;  /* total at the last reset of the counts */
    int64_t opened;  /* handles, less closed ones */
};

static call_state s_calls[ROWS];

/* Calls that open and close handles, by kind. */
static const struct handle_call {
    const char *name, *what;
    int change;
} s_handle_calls[] = {
    {"CreateFileA",              "handles",         1 },
    {"CreateFileW",              "handles",         1 },
    {"CreateToolhelp32Snapshot", "handles",         1 },
    {"OpenProcess",              "handles",         1 },
    {"OpenProcessToken",         "handles",         1 },
    {"CloseHandle",              "handles",         -1},
    {"FindFirstFileW",           "searches",        1 },
    {"FindClose",                "searches",        -1},
    {"OpenEventLogW",            "logs",            1 },
    {"CloseEventLog",            "logs",            -1},
    {"OpenSCManagerW",           "service handles", 1 },
    {"OpenServiceW",             "service handles", 1 },
    {"CloseServiceHandle",       "service handles", -1},
    {"RegOpenKeyExW",            "registry keys",   1 },
    {"RegCreateKeyExW",          "registry keys",   1 },
    {"RegCloseKey",              "registry keys",   -1},
 /* The counters in the plug-in close files, too, and open them by another call. */
#ifndef BYPASS_COVERAGE
    {"oxni_file_open_w",         "files",           1 },
    {"fclose",                   "files",           -1},
#endif
};
static calls_trace_fn s_trace;
static bool (*s_trace_wanted)(const char *name);

static std::string key_text(uint64_t key)
{
    if (reinterpret_cast<HKEY>(key) == HKEY_LOCAL_MACHINE)
        return "HKLM";
    return key == 0 ? "null" : "key";
}

static std::string handle_text(uint64_t handle)
{
    if (handle == 0)
        return "null";
    return reinterpret_cast<HANDLE>(handle) == INVALID_HANDLE_VALUE ? "invalid" : "handle";
}

static std::string subscriber_text(uint64_t value)
{
    const oxni_subscriber_attr *attr =
        oxni_subscriber_get_attr(reinterpret_cast<oxni_subscriber *>(value));

    return attr != nullptr ? text_format("%s/%s", attr->ns, attr->name) : "null";
}

/* "SeSecurityPrivilege enabled" */
static std::string privilege_text(const TOKEN_PRIVILEGES *wanted)
{
    if (wanted == nullptr || wanted->PrivilegeCount == 0)
        return "null";
    const LUID_AND_ATTRIBUTES &first = wanted->Privileges[0];
    return std::string(privilege_name(first.Luid.LowPart)) +
           ((first.Attributes & SE_PRIVILEGE_REMOVED) != 0   ? " removed"
            : (first.Attributes & SE_PRIVILEGE_ENABLED) != 0 ? " enabled"
                                                             : " disabled");
}

static std::string value_text(char letter, uint64_t value)
{
    switch (letter) {
    case 'd': return text_format("%d", static_cast<int32_t>(value));
    case 'u': return text_format("%u", static_cast<uint32_t>(value));
    case 'x': return text_format("0x%x", static_cast<uint32_t>(value));
    case 'U': return text_format("%llu", value);
    case 's':
        return value != 0 ? text_format("\"%s\"", reinterpret_cast<const char *>(value)) : "null";
    case 'w':
        return value != 0 ? "\"" + text_narrow(reinterpret_cast<const wchar_t *>(value)) + "\""
                          : "null";
    case 'h': return handle_text(value);
    case 'k': return key_text(value);
    case 'j':
    case 'J': return text_of_json(reinterpret_cast<const json_t *>(value));
    case 'S': return subscriber_text(value);
    case 't': return privilege_text(reinterpret_cast<const TOKEN_PRIVILEGES *>(value));
    case 'p': return value != 0 ? "*" : "null";
    default: return "";
    }
}

static std::string arguments_text(const call_row &row, const uint64_t *arguments)
{
    std::string text;

    for (size_t i = 0; row.arguments[i] != '\0'; i++)
        if (strchr(".onNO", row.arguments[i]) == nullptr)
            text += (text.empty() ? "" : ", ") + value_text(row.arguments[i], arguments[i]);
    return text;
}

/* The result of a call of that row when it fails. */
static uint64_t failed_result(const call_row &row, uint32_t error)
{
    switch (row.failing) {
    case 'I': return reinterpret_cast<uint64_t>(INVALID_HANDLE_VALUE);
    case 'E': return error;
    case 'A': return error == ERROR_NOT_ALL_ASSIGNED;
    case 'M': return static_cast<uint64_t>(-1);
    default: return 0;
    }
}

/* What the contract of a call promises of its outputs when it fails. */
static void set_outputs(const call_row &row, uint32_t error, const uint64_t *arguments)
{
    bool wants_room = error == ERROR_INSUFFICIENT_BUFFER || error == ERROR_MORE_DATA;

    for (size_t i = 0; row.arguments[i] != '\0'; i++) {
        if (arguments[i] == 0)
            continue;
        if (row.arguments[i] == 'o')
            *reinterpret_cast<char *>(arguments[i]) = '\0';
        else if (row.arguments[i] == 'n')
            *reinterpret_cast<uint32_t *>(arguments[i]) = 0;
        else if (row.arguments[i] == 'N' && wants_room)
            *reinterpret_cast<uint32_t *>(arguments[i]) = 0x10000;
        else if (row.arguments[i] == 'O')
            *reinterpret_cast<void **>(arguments[i]) = nullptr;
        else if (row.arguments[i] == 'J')
            json_decref(reinterpret_cast<json_t *>(arguments[i]));
    }
}

/* Whether this call is to fail, and with which error. */
static bool failure_due(const call_row &row, call_state &state, const uint64_t *arguments,
                        uint32_t *error)
{
    bool due = false;

    for (planned_failure &failure : state.failures) {
        if (!failure.with.empty() && !text_fits(arguments_text(row, arguments), failure.with))
            continue;
        failure.seen++;
        if (!due && failure.seen >= failure.first && failure.seen <= failure.last) {
            *error = failure.error;
            due = true;
        }
    }
    return due;
}

/* Whether a call only counts, as most do. */
static bool is_plain(const call_state &state)
{
    return s_trace == nullptr && state.failures.empty() && state.handles == nullptr &&
           state.watch == nullptr;
}

static bool is_traced(const char *name)
{
    return s_trace != nullptr && (s_trace_wanted == nullptr || s_trace_wanted(name));
}

static void trace_call(const call_row &row, const std::string &arguments, uint64_t result,
                       DWORD error, bool planned)
{
    std::string text = std::string(row.name) + "(" + arguments + ")";

    if (row.result != 'v')
        text += " = " + value_text(row.result, result);
    if (strchr("BAI", row.failing) != nullptr)
        if (result == failed_result(row, 0))
            text += text_format(" error %lu", error);
    s_trace(planned ? text + " (made to fail)" : text);
}

/* Counts calls that opened or closed something. */
static void count_handle(const call_row &row, call_state &state, uint64_t result)
{
    bool done = static_cast<uint32_t>(result) != 0;

    if (strncmp(row.name, "Reg", 3) == 0 || strcmp(row.name, "fclose") == 0)
        done = static_cast<uint32_t>(result) == ERROR_SUCCESS;
    else if (row.failing == 'I')
        done = result != failed_result(row, 0);
    if (done)
        state.opened += state.handles->change;
}

static uint64_t run_call(size_t index, const uint64_t *a)
{
    const call_row &row = s_rows[index];
    call_state &state = s_calls[index];
    std::string arguments;
    uint32_t planned_error = 0;
    const bool traced = is_traced(row.name);
    const bool formats = traced || !state.failures.empty(); /* which may set the last error */
    bool planned;
    uint64_t result;
    DWORD error = formats ? GetLastError() : ERROR_SUCCESS;

    /* Formatted before the call, which may overwrite them. */
    if (traced)
        arguments = arguments_text(row, a);
    state.total++;
    planned = failure_due(row, state, a, &planned_error);
    if (formats)
        SetLastError(error);
    if (planned) {
        result = failed_result(row, planned_error);
        set_outputs(row, planned_error, a);
        state.failed++;
        if (strchr("BAI", row.failing) != nullptr)
            SetLastError(planned_error);
    } else {
        result = state.target(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9], a[10],
                              a[11], a[12], a[13], a[14], a[15], a[16], a[17]);
    }
    error = GetLastError();
    /* Closing INVALID_HANDLE_VALUE succeeds on Windows, too. */
    if (state.handles != nullptr &&
        (state.handles->change > 0 || reinterpret_cast<HANDLE>(a[0]) != INVALID_HANDLE_VALUE))
        count_handle(row, state, result);
    if (traced)
        trace_call(row, arguments, result, error, planned);
    if (state.watch != nullptr)
        state.watch(a, result);
    SetLastError(error);
    return result;
}

template <size_t index>
static uint64_t thunk(uint64_t a0, uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4, uint64_t a5,
                      uint64_t a6, uint64_t a7, uint64_t a8, uint64_t a9, uint64_t a10,
                      uint64_t a11, uint64_t a12, uint64_t a13, uint64_t a14, uint64_t a15,
                      uint64_t a16, uint64_t a17)
{
    call_state &state = s_calls[index];

    /* The compiler makes this a jump: the arguments are not copied. */
    if (is_plain(state)) {
        state.total++;
        return state.target(a0, a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, a13, a14, a15,
                            a16, a17);
    }
    const uint64_t arguments[ARGUMENTS] = {a0, a1,  a2,  a3,  a4,  a5,  a6,  a7,  a8,
                                           a9, a10, a11, a12, a13, a14, a15, a16, a17};

    return run_call(index, arguments);
}

template <size_t... indices>
static constexpr std::array<any_call_fn, sizeof...(indices)> make_thunks(
    std::index_sequence<indices...>)
{
    return {thunk<indices>...};
}

static const std::array<any_call_fn, ROWS> s_thunks = make_thunks(std::make_index_sequence<ROWS>());

/* Row of an import; ROWS when the table has none. */
static size_t find_row(const std::string &module, const char *name)
{
    static std::map<std::string, size_t> rows; /* by both names: each load looks for a hundred */

    if (rows.empty())
        for (size_t index = 0; index < ROWS; index++)
            rows[std::string(s_rows[index].module) + "/" + s_rows[index].name] = index;
    auto at = rows.find(module + "/" + name);
    return at != rows.end() ? at->second : ROWS;
}

static void patch_entry(void **entry, size_t index, void *function)
{
    void *real = imports_redirect(entry, reinterpret_cast<void *>(s_thunks[index]));

    s_calls[index].target = reinterpret_cast<any_call_fn>(function != nullptr ? function : real);
    for (const handle_call &call : s_handle_calls)
        if (strcmp(call.name, s_rows[index].name) == 0)
            s_calls[index].handles = &call;
}

void calls_patch(HMODULE plugin, void *(*stand_in)(const char *name))
{
    imports_each(plugin, [stand_in](const std::string &module, const char *name, void **entry) {
        size_t index = find_row(module, name);

        if (index < ROWS)
            patch_entry(entry, index, stand_in(name));
    });
}

void calls_set_trace(calls_trace_fn fn, bool (*wanted)(const char *name))
{
    s_trace = fn;
    s_trace_wanted = wanted;
}

void calls_trace(const std::string &text)
{
    if (is_traced(text.c_str()))
        s_trace(text);
}

/* Row of a name; ROWS when the table has none. */
static size_t find_name(std::string_view name)
{
    static const std::map<std::string_view, size_t> rows = [] {
        std::map<std::string_view, size_t> made;

        for (size_t index = 0; index < ROWS; index++)
            made[s_rows[index].name] = index;
        return made;
    }();
    auto at = rows.find(name);

    return at != rows.end() ? at->second : ROWS;
}

void calls_set_watch(std::string_view name, calls_watch_fn fn)
{
    const size_t index = find_name(name);

    if (index < ROWS)
        s_calls[index].watch = fn;
}

/* Row of a name that can fail; ROWS when there is none. */
static size_t find_failing(std::string_view name)
{
    const size_t index = find_name(name);

    return index < ROWS && s_rows[index].failing != '-' ? index : ROWS;
}

bool calls_known(std::string_view name)
{
    return find_name(name) < ROWS;
}

bool calls_can_fail(std::string_view name, uint32_t error)
{
    size_t index = find_failing(name);

    return index < ROWS && (error != 0 || strchr("BAIE", s_rows[index].failing) == nullptr);
}

std::vector<std::string> calls_failing(void)
{
    std::vector<std::string> names;

    for (const call_row &row : s_rows)
        if (row.failing != '-')
            names.push_back(row.name);
    return names;
}

std::vector<uint32_t> calls_errors(const std::string &name)
{
    size_t index = find_failing(name);

    if (index == ROWS || strchr("BAIE", s_rows[index].failing) == nullptr)
        return {0};
    for (const call_errors &row : s_errors)
        if (name == row.name)
            return row.errors;
    return {ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_MEMORY};
}

std::string calls_left_open(void)
{
    std::map<std::string_view, int64_t> kinds;
    std::string text;

    for (call_state &state : s_calls)
        if (state.handles != nullptr)
            kinds[state.handles->what] += std::exchange(state.opened, 0);
    for (const auto &[what, open] : kinds)
        if (open != 0)
            text += (text.empty() ? "" : ", ") + text_format("%lld ", open) + std::string(what);
    return text;
}

void calls_fail(const std::string &name, uint64_t nth, uint64_t times, uint32_t error,
                const std::string &with)
{
    size_t index = find_failing(name);

    if (index == ROWS)
        return;
    call_state &state = s_calls[index];
    state.failures.push_back({nth, times != 0 ? nth + times - 1 : UINT64_MAX, error, with, 0});
}

void calls_clear_failures(void)
{
    for (call_state &state : s_calls)
        state.failures.clear();
}

uint64_t calls_count(std::string_view name)
{
    const size_t index = find_name(name);

    return index < ROWS ? s_calls[index].total - s_calls[index].since : 0;
}

uint64_t calls_failed(std::string_view name)
{
    const size_t index = find_name(name);

    return index < ROWS ? s_calls[index].failed : 0;
}

void calls_reset_counts(void)
{
    for (call_state &state : s_calls)
        state.since = state.total;
}
