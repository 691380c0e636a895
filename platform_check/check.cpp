/*
 * platform_check: does a platform keep the promises of docs/platform.md? Each area runs in a child
 * process. A row that crashes or hangs ends its child; the next child goes on after that row.
 *
 * usage: platform_check [--list] [--seconds=N] [NAME...]
 *
 * NAME is an area or an operation; by default all. A row that takes longer than N seconds, by default
 * 10, hangs.
 */
#include "check.h"

#include <cstdio>
#include <cstring>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <algorithm>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

static constexpr int EXIT_BROKEN = 1, EXIT_BAD_CALL = 2;

/* All rows, in the order of their registration. */
static std::vector<const promise *> &rows()
{
    static std::vector<const promise *> all;
    return all;
}

struct unable {
};

static ULONGLONG s_row_ms = 10000;
static std::mutex s_lock; /* callbacks may come from threads of the platform */
static std::string s_case, s_difference, s_notes;
static std::filesystem::path s_folder;
static std::vector<json_t *> s_values;

void check_case(const std::string &name)
{
    s_case = name;
}

/* Rows print on one line. */
static std::string shown(const std::string &text)
{
    std::string line = text.size() <= 300 ? text : text.substr(0, 300) + "...";

    for (char &one : line)
        if (one == '\n' || one == '\r')
            one = ' ';
    return "\"" + line + "\"";
}

void check_same(const std::string &expected, const std::string &seen, const char *what)
{
    const std::lock_guard<std::mutex> lock(s_lock);

    if (!s_difference.empty() || expected == seen)
        return;
    s_difference = std::string(what) + (s_case.empty() ? "" : " [" + s_case + "]") + ": saw " +
                   shown(seen) + ", expected " + shown(expected);
}

std::string text_of(const char *text)
{
    return text == nullptr ? "NULL" : text;
}

std::string text_of(const wchar_t *text)
{
    return text == nullptr ? "NULL" : std::filesystem::path(text).u8string();
}

void note(const std::string &text)
{
    const std::lock_guard<std::mutex> lock(s_lock);

    s_notes += (s_notes.empty() ? "" : " ") + text;
}

std::string notes()
{
    const std::lock_guard<std::mutex> lock(s_lock);

    return std::exchange(s_notes, "");
}

void deliver(unsigned ms)
{
    ABLE(run)(ms);
}

void check_able(bool able, const char *member)
{
    if (able)
        return;
    s_difference = member;
    throw unable();
}

std::string path_of(const std::string &name)
{
    return s_folder.generic_u8string() + "/" + name;
}

std::wstring wide_of(const std::string &text)
{
    return std::filesystem::u8path(text).wstring();
}

std::string file_bytes(const std::string &path)
{
    std::ifstream file(std::filesystem::u8path(path), std::ios::binary);
    std::ostringstream bytes;

    bytes << file.rdbuf();
    return file.is_open() ? bytes.str() : "(none)";
}

void file_write(const std::string &path, const std::string &bytes)
{
    std::ofstream(std::filesystem::u8path(path), std::ios::binary) << bytes;
}

json_t *json_of(const std::string &text)
{
    s_values.push_back(json_loads(text.c_str(), JSON_DECODE_ANY, nullptr));
    check_same("true", s_values.back() != nullptr ? "true" : "false", text.c_str());
    return s_values.back();
}

const char *unique(const char *name)
{
    static std::set<std::string> names;

    return names.insert(name + std::to_string(names.size())).first->c_str();
}

promise::promise(const char *where, const char *what, const char *quoted, void (*code)(void),
                 bool ends)
    : area(where), operation(what), sentence(quoted), run(code), ends_process(ends)
{
    rows().push_back(this);
}

void check_area(const char *area)
{
    for (const promise *row : rows())
        if (strcmp(row->area, area) == 0 && !row->ends_process)
            row->run();
}

/* Removes what a row wrote. The log may stay open until the process ends. */
static void clear_folder(bool keep_logs)
{
    std::error_code ignored;

    for (const auto &file : std::filesystem::directory_iterator(s_folder, ignored))
        if (!keep_logs || file.path().filename() != "logs")
            std::filesystem::remove_all(file.path(), ignored);
    if (!keep_logs)
        std::filesystem::remove(s_folder, ignored);
}

static const char *run_row(const promise &row)
{
    const char *result = nullptr;

    s_case = s_difference = s_notes = "";
    std::filesystem::create_directories(s_folder);
    g_driver.start(s_folder.generic_u8string());
    try {
        row.run();
        if (row.ends_process)
            check_same("the end of the process", "a return", row.operation);
    } catch (const unable &) {
        result = "unchecked";
    }
    for (json_t *value : s_values)
        json_decref(value);
    s_values.clear();
    const std::string noticed = g_driver.finish == nullptr ? "" : g_driver.finish();
    if (result == nullptr && s_difference.empty() && !noticed.empty())
        s_difference = "afterwards: " + noticed;
    clear_folder(true);
    return result != nullptr ? result : s_difference.empty() ? "pass" : "FAIL";
}

static bool is_chosen(const std::set<std::string> &names, const promise &row)
{
    return names.empty() || names.count(row.area) != 0 || names.count(row.operation) != 0;
}

static LONG WINAPI crashed(EXCEPTION_POINTERS *what)
{
    TerminateProcess(GetCurrentProcess(), what->ExceptionRecord->ExceptionCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

/* Prints a line before each row and one with its result. */
static void run_child(const std::string &area, size_t from, const std::set<std::string> &names)
{
    setvbuf(stdout, nullptr, _IONBF, 0);
    SetUnhandledExceptionFilter(crashed); /* no debugger, no box for a person */
    s_folder = std::filesystem::temp_directory_path() /
               ("platform_check_" + std::to_string(GetCurrentProcessId()));
    for (size_t i = from; i < rows().size(); i++)
        if (rows()[i]->area == area && is_chosen(names, *rows()[i])) {
            printf("row %u\n", static_cast<unsigned>(i));
            const std::string result = run_row(*rows()[i]);
            printf("%s\t%s\n", result.c_str(), s_difference.c_str());
        }
    clear_folder(false);
}

struct child {
    HANDLE process, output;
    std::string unread;
};

static child start_child(const std::string &area, size_t from, const std::set<std::string> &names)
{
    SECURITY_ATTRIBUTES inherited = {sizeof(inherited), nullptr, TRUE};
    wchar_t program[MAX_PATH] = {};
    STARTUPINFOW startup = {};
    PROCESS_INFORMATION made = {};
    HANDLE output, input;

    GetModuleFileNameW(nullptr, program, MAX_PATH);
    CreatePipe(&output, &input, &inherited, 0);
    SetHandleInformation(output, HANDLE_FLAG_INHERIT, 0);
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = input;
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    std::wstring line = L"\"" + std::wstring(program) + L"\" --child \"" + wide_of(area) + L"\" " +
                        std::to_wstring(from);
    for (const std::string &name : names)
        line += L" \"" + wide_of(name) + L"\"";
    if (!CreateProcessW(program, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                        &made))
        fprintf(stderr, "platform_check: cannot start a process: error %lu\n", GetLastError());
    CloseHandle(input);
    CloseHandle(made.hThread);
    return {made.hProcess, output, ""};
}

/* Returns the next line; empty at the end of the output, or when none comes in time. */
static std::string next_line(child &from)
{
    const ULONGLONG until = GetTickCount64() + s_row_ms;
    char part[4096];
    DWORD bytes = 0;

    for (;;) {
        const size_t end = from.unread.find('\n');
        if (end != std::string::npos) {
            std::string line = from.unread.substr(0, end);
            line.erase(std::remove(line.begin(), line.end(), '\r'), line.end());
            from.unread.erase(0, end + 1);
            return line;
        }
        if (!PeekNamedPipe(from.output, nullptr, 0, nullptr, &bytes, nullptr) ||
            GetTickCount64() > until)
            return "";
        if (bytes == 0)
            Sleep(5);
        else if (ReadFile(from.output, part, sizeof(part), &bytes, nullptr))
            from.unread.append(part, bytes);
    }
}

/* Ends a child whose row printed no result. Returns the row's result. */
static std::string end_of(const child &ended, const promise &row)
{
    DWORD code = 0;
    char text[32];

    if (WaitForSingleObject(ended.process, 2000) != WAIT_OBJECT_0) {
        TerminateProcess(ended.process, 1);
        return "FAIL\tno result within " + std::to_string(s_row_ms / 1000) + " s";
    }
    GetExitCodeProcess(ended.process, &code);
    if (row.ends_process && code == 0)
        return "pass\t";
    snprintf(text, sizeof(text), "0x%lx", code);
    return std::string("FAIL\tthe process ended with exit code ") + text;
}

struct totals {
    unsigned passed, failed, unchecked;
};

static void print_result(const promise &row, const std::string &line, totals &sum)
{
    const size_t tab = std::min(line.find('\t'), line.size() - 1);
    const std::string result = line.substr(0, tab), seen = line.substr(tab + 1);

    sum.passed += result == "pass";
    sum.unchecked += result == "unchecked";
    sum.failed += result == "FAIL";
    printf("%s %s: %s\n", result.c_str(), row.operation, row.sentence);
    if (!seen.empty())
        printf("    %s%s\n", result == "unchecked" ? "the driver lacks " : "", seen.c_str());
    fflush(stdout);
}

/* Runs an area's rows from one on until a child ends. Returns whether to go on, with that row. */
static bool run_rows(const std::string &area, size_t *from, const std::set<std::string> &names,
                     totals &sum)
{
    child one = start_child(area, *from, names);
    const promise *row = nullptr;

    for (std::string line; !(line = next_line(one)).empty();) {
        if (line.compare(0, 4, "row ") == 0) {
            *from = strtoul(line.c_str() + 4, nullptr, 10) + 1;
            row = rows().at(*from - 1);
            continue;
        }
        if (row != nullptr) /* what else the platform prints is no result */
            print_result(*row, line, sum);
        row = nullptr;
    }
    if (row != nullptr)
        print_result(*row, end_of(one, *row), sum);
    CloseHandle(one.process);
    CloseHandle(one.output);
    return row != nullptr;
}

static int run_all(const std::set<std::string> &names)
{
    std::set<std::string> done;
    totals sum = {};

    for (size_t i = 0; i < rows().size(); i++)
        if (is_chosen(names, *rows()[i]) && done.insert(rows()[i]->area).second)
            for (size_t from = i; run_rows(rows()[i]->area, &from, names, sum);) {
            }
    const unsigned promises = sum.passed + sum.failed + sum.unchecked;
    printf("%u promises: %u kept, %u broken, %u not checked\n", promises, sum.passed, sum.failed,
           sum.unchecked);
    return promises == 0 ? EXIT_BAD_CALL : sum.failed != 0 ? EXIT_BROKEN : 0;
}

static int list()
{
    for (const promise *row : rows())
        printf("%s\t%s\t%s\n", row->area, row->operation, row->sentence);
    return 0;
}

int main(int argc, char **argv)
{
    std::set<std::string> names;
    const bool is_child = argc > 3 && strcmp(argv[1], "--child") == 0;

    for (int i = is_child ? 4 : 1; i < argc; i++)
        if (strncmp(argv[i], "--seconds=", 10) == 0)
            s_row_ms = 1000ULL * strtoul(argv[i] + 10, nullptr, 10);
        else
            names.insert(argv[i]);
    if (is_child) {
        run_child(argv[2], strtoul(argv[3], nullptr, 10), names);
        return 0;
    }
    if (names.count("--list") != 0)
        return list();
    if (s_row_ms == 0 || (!names.empty() && names.begin()->front() == '-')) {
        fprintf(stderr, "usage: platform_check [--list] [--seconds=N] [AREA|OPERATION...]\n");
        return EXIT_BAD_CALL;
    }
    return run_all(names);
}
