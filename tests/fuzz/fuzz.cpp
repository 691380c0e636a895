/* The program: its command line, and the damage of inputs. */
#include "fuzz.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <windows.h>
#include <psapi.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <memory>
#include <sstream>

#include "base/file.h"
#include "base/run_folder.h"
#include "base/terminal.h"
#include "base/text.h"
#include "commands/command_line.h"
#include "disk/memory_disk.h"
#include "harness/watch.h"

static constexpr int HANG_SECONDS = 60;
static constexpr size_t MOST_INPUT_BYTES = 64u << 20;

/* Of the program; made by the first target that is added. */
static std::vector<fuzz_target> &targets(void)
{
    static std::vector<fuzz_target> all;

    return all;
}

bool fuzz_add(const fuzz_target &target)
{
    targets().push_back(target);
    return true;
}

trial_folder fuzz_memory, fuzz_disk;

size_t chance::below(size_t limit)
{
    return limit == 0 ? 0 : static_cast<size_t>(next() % limit);
}

bool chance::one_in(size_t n)
{
    return below(n) == 0;
}

std::string chance::word(const char *words)
{
    std::istringstream stream(words);
    const std::vector<std::string> all{std::istream_iterator<std::string>(stream), {}};

    return of(all);
}

/* A number at which calculations overflow or miss by one. */
static uint64_t edge(size_t size, chance &chance)
{
    switch (chance.below(8)) {
    case 0: return size + chance.below(3) - 1;
    case 1: return chance.below(4096);
    default:
        return strtoull(chance
                            .word("0 1 2 55 56 57 0x7f 0x80 0xff 0x7fff 0xffff 0x10000 0xfffffff "
                                  "0x7fffffff 0x80000000 0xfffffffe 0xffffffff "
                                  "0x7fffffffffffffff 0xffffffffffffffff")
                            .c_str(),
                        nullptr, 0);
    }
}

static void damage_once(std::string *bytes, const std::string &other, chance &chance)
{
    size_t at = chance.below(bytes->size()), count = chance.below(1 + bytes->size() - at);
    uint64_t number = edge(bytes->size(), chance);
    size_t width = static_cast<size_t>(1) << chance.below(4);

    count = chance.one_in(4) ? count : std::min<size_t>(count, 16);
    switch (bytes->empty() ? 5 : chance.below(8)) {
    case 0: (*bytes)[at] = static_cast<char>((*bytes)[at] ^ 1 << chance.below(8)); break;
    case 1: (*bytes)[at] = static_cast<char>(chance.next()); break;
    case 2:
        at = at / 4 * 4;
        memcpy(&(*bytes)[at], &number, std::min(width, bytes->size() - at));
        break;
    case 3: bytes->erase(at, count); break;
    case 4:
        if (bytes->size() < 1 << 16)
            bytes->insert(at, bytes->substr(at, count));
        break;
    case 5: bytes->insert(at, other.substr(chance.below(other.size() + 1), 64)); break;
    case 6: bytes->resize(at); break;
    default: bytes->insert(at, 1 + chance.below(8), static_cast<char>(chance.next())); break;
    }
}

void damage(std::string *bytes, const std::string &other, chance &chance)
{
    for (size_t left = 1 + chance.below(8); left > 0; left--)
        damage_once(bytes, other, chance);
}

void change_numbers(std::string *bytes, size_t begin, size_t size, uint64_t end, chance &chance)
{
    size = std::min(size, bytes->size() - std::min(begin, bytes->size()));
    for (size_t left = 1 + chance.below(3); left > 0 && size > sizeof(uint32_t); left--) {
        char *at = &(*bytes)[begin + chance.below(size - sizeof(uint32_t))];
        uint32_t number = 0;

        memcpy(&number, at, sizeof(number));
        switch (chance.below(4)) {
        case 0: number += static_cast<uint32_t>(chance.below(512)) - 256; break;
        case 1: number = static_cast<uint32_t>(end - chance.below(64)); break;
        default: number = static_cast<uint32_t>(chance.next()) >> (8 * chance.below(4)); break;
        }
        memcpy(at, &number, 1ull << chance.below(3));
    }
}

std::string damaged(const std::vector<std::string> &good, chance &chance)
{
    std::string bytes = chance.of(good);

    damage(&bytes, chance.of(good), chance);
    return bytes;
}

static std::string odd_text(const std::vector<const char *> &words, chance &chance)
{
    static const char *const odd[] = {"",         "\\u0000",     "a\\u0000b",  "\\ud83d\\ude00",
                                      "%s%n%S",   "../../x",     "crash_info", "\xc3\xa9",
                                      "C:\\\\x",  "\\\"",        "bypass\\n",  "start_time",
                                      "\xe2\x82", "\xff\xfe\xfd"};

    if (chance.one_in(400))
        return std::string(100000, 'n');
    return chance.one_in(3) ? chance.of(odd) : chance.of(words);
}

static std::string odd_value(const std::vector<const char *> &keys,
                             const std::vector<const char *> &words, unsigned depth, chance &chance)
{
    std::string text;
    size_t kind = chance.below(depth > 4 ? 5 : 8);

    if (kind < 2)
        return chance.word("null true false 0 1 2 -1 9223372036854775807 -9223372036854775808 "
                           "4294967296 1e308 -0.0 123456789012345678901234567890 {} []");
    if (kind < 5)
        return "\"" + odd_text(words, chance) + "\"";
    for (size_t left = chance.below(6); left > 0; left--)
        text += (text.empty() ? "" : ",") +
                (kind == 5 ? ""
                           : "\"" +
                                 std::string(chance.one_in(8) ? odd_text(words, chance)
                                                              : chance.of(keys)) +
                                 "\":") +
                odd_value(keys, words, depth + 1, chance);
    return kind == 5 ? "[" + text + "]" : "{" + text + "}";
}

std::string odd_json(const std::vector<const char *> &keys, const std::vector<const char *> &words,
                     chance &chance)
{
    std::string text;

    if (chance.one_in(500)) {
        size_t depth = chance.below(4000);

        return std::string(depth, '[') + std::string(chance.one_in(4) ? depth / 2 : depth, ']');
    }
    if (chance.one_in(50))
        return odd_value(keys, words, 0, chance);
    for (const char *key : keys)
        if (!chance.one_in(8))
            text += (text.empty() ? "\"" : ",\"") + std::string(key) +
                    "\":" + odd_value(keys, words, 1, chance);
    return "{" + text + "}";
}

const uint8_t *fuzz_guarded(const void *bytes, size_t size)
{
    static uint8_t *s_end;
    DWORD before;

    if (s_end == nullptr) {
        s_end = static_cast<uint8_t *>(VirtualAlloc(nullptr, MOST_INPUT_BYTES + 4096,
                                                    MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE)) +
                MOST_INPUT_BYTES;
        VirtualProtect(s_end, 4096, PAGE_NOACCESS, &before);
    }
    if (size > MOST_INPUT_BYTES)
        violated("an input is larger than the block for it");
    if (size > 0)
        memcpy(s_end - size, bytes, size);
    return s_end - size;
}

void violated(const std::string &what)
{
    printf("violation: %s\n", what.c_str());
    fflush(stdout);
    abort(); /* the watch prints the command to reproduce */
}

void trial_folder::empty() const
{
    folder->empty();
}

std::string file_bytes(const std::string &path)
{
    const auto program = std::filesystem::u8path(run_standard_plugin());
    const evidence_file file((program.parent_path() / std::filesystem::u8path(path)).u8string());

    return std::string(reinterpret_cast<const char *>(file.data()), file.bytes());
}

struct arguments {
    const fuzz_target *target = nullptr;
    uint64_t inputs = 10000, seed = 1, from = 0;
    std::string place;
};

static double try_input(const arguments &arguments, uint64_t number)
{
    chance chance(arguments.seed << 32 ^ number);
    const double began = time_real_ms();

    arguments.target->try_one(chance, number);
    return time_real_ms() - began;
}

/* The input that took longest. */
struct slowest {
    double ms = 0;
    uint64_t number = 0;
};

/* Other programs interrupt a trial, so one that seems slow is repeated, and its fastest turn counts. */
static void note_slow(const arguments &arguments, uint64_t number, double ms, slowest *worst)
{
    for (int turns = 0; turns < 3 && ms > worst->ms && arguments.target->period == 1; turns++)
        ms = std::min(ms, try_input(arguments, number));
    if (ms > worst->ms)
        *worst = {ms, number};
}

static uint64_t peak_mib(void)
{
    PROCESS_MEMORY_COUNTERS counters = {};

    (void)GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters));
    return counters.PeakWorkingSetSize >> 20;
}

static void run(const arguments &arguments)
{
    const fuzz_target &target = *arguments.target;
    const double began = time_real_ms();
    slowest worst;

    if (target.open != nullptr)
        target.open();
    const uint64_t opened_mib = peak_mib();

    for (uint64_t i = arguments.from; i < arguments.from + arguments.inputs; i++) {
        uint64_t fresh = i / target.period * target.period;

        if (i % 64 == 0 || i == arguments.from || target.period > 1)
            watch_try(text_format("fuzz %s --seed %llu --from %llu --inputs %llu", target.name,
                                  arguments.seed, fresh,
                                  target.period > 1 ? i - fresh + 1 : 64 - i % 64),
                      i);
        if (i % 64 == 0)
            terminal_progress_whole(text_format("fuzz %s: %llu of %s", target.name,
                                                i - arguments.from,
                                                text_count(arguments.inputs, "input").c_str()));
        note_slow(arguments, i, try_input(arguments, i), &worst);
    }
    terminal_progress_end();
    printf(
        "fuzz %-10s %10llu inputs, 0 violations, %.1f s; slowest: %llu, %.1f ms; memory: %llu MiB, "
        "%llu of them before the first input\n",
        target.name, arguments.inputs, (time_real_ms() - began) / 1000.0, worst.number, worst.ms,
        peak_mib(), opened_mib);
}

static void run_in_folders(const arguments &arguments)
{
    run_folder folder("", arguments.place), real(folder.path + "-real");

    real.kept = false;
    fuzz_memory = {folder.path + "\\", &folder};
    fuzz_disk = {real.path + "\\", &real};
    memory_disk_open(text_wide(folder.path));
    watch_open(HANG_SECONDS);
    run(arguments);
}

static void add_targets(CLI::App &app, int *)
{
    const auto options = std::make_shared<arguments>();

    for (const fuzz_target &target : targets()) {
        CLI::App *command = app.add_subcommand(target.name);

        command->add_option("--inputs", options->inputs, "Number of inputs");
        command->add_option("--seed", options->seed, "From which all inputs follow");
        command->add_option("--from", options->from, "The first input");
        command->add_option("--place", options->place, "Folder for the files of the inputs");
        command->callback([options, &target] {
            options->target = &target;
            run_in_folders(*options);
        });
    }
}

int wmain(int argc, wchar_t **argv);

int wmain(int argc, wchar_t **argv)
{
    return command_line_run("fuzz", "Reads generated and damaged input, see docs/faults.md",
                            "Exit status: 0 no violation, 2 invalid call, 70 a violation or a "
                            "crash, 71 it hung.",
                            {add_targets}, argc, argv);
}
