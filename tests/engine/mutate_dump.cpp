/*
 * Damages dumps again and again and reads them, in one native program, so that the compiler's
 * checks of memory and arithmetic see every access; they do not exist for Windows programs built
 * here:
 *
 *   g++ -std=c++17 -O1 -g -fsanitize=address,undefined -fno-sanitize-recover -I devhost/dbgeng
 *       tests/engine/{mutate_dump,dump_builder,memory_model}.cpp
 *       devhost/dbgeng/{kernel_dump,kernel_dump_memory,kernel_dump_triage,memory_dump}.cpp
 *   ./a.out COUNT SEED [FILE]
 *
 * COUNT times each of the dumps that the tests build, a small one and those of the memory, or FILE.
 * Exit status 1: what was read does not hold together; the line says which mutation of which seed.
 */
#include "dump_builder.h"
#include "kernel_dump.h"
#include "memory_model.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

struct subject {
    const char *name;
    std::vector<uint8_t> whole;
    std::vector<uint64_t> places; /* to damage; empty: those of a small dump */
};

static std::vector<subject> built_subjects(void)
{
    std::vector<subject> subjects;
    dump_model model;

    model.stack = {0xFFFFF80100010001, 0, 0xFFFFF80000000107, 5};
    subjects.push_back({"small", dump_build(model), {}});
    const memory_model memory(model);
    const memory_model large(model, 21);
    const auto add = [&subjects](const char *name, const memory_model &machine, uint32_t kind,
                                 enum memory_layout layout) {
        subjects.push_back({name, machine.build(kind, layout), machine.vital_places(layout)});
    };

    add("complete", memory, 1, MEMORY_RUNS);
    add("complete, large pages", large, 1, MEMORY_RUNS);
    add("kernel", memory, 2, MEMORY_RUNS);
    add("kernel with a summary", memory, 2, MEMORY_SDMP);
    add("complete, bitmap", large, 5, MEMORY_FDMP);
    add("kernel, bitmap", memory, 6, MEMORY_SDMP);
    return subjects;
}

static std::vector<subject> subjects_of(const char *path)
{
    if (path == NULL)
        return built_subjects();
    std::ifstream file(path, std::ios::binary);

    return {
        {path, std::vector<uint8_t>(std::istreambuf_iterator<char>(file), {}), {}}
    };
}

/* Walks and names everything; false when it cannot be right. */
static bool holds_together(enum kernel_dump_error error, const kernel_dump &dump,
                           const std::string &reason)
{
    const std::vector<kernel_dump_frame> frames = kernel_dump_walk(dump, 99);

    if (reason.empty() != (error == KERNEL_DUMP_OK) || frames.empty() || frames.size() > 99)
        return false;
    for (const std::string &gap : dump.gaps) {
        if (error != KERNEL_DUMP_OK || gap.find_first_of("\n!+") != std::string::npos)
            return false;
    }
    for (size_t i = 0; i < frames.size(); i++) {
        const std::string site = kernel_dump_call_site(dump, frames[i].instruction);

        if (site.find_first_of("\n!") != std::string::npos)
            return false;
        if (i > 0 && kernel_dump_module_at(dump, frames[i].instruction) == NULL)
            return false;
        (void)kernel_dump_stack_value(dump, frames[i].stack);
    }
    return true;
}

/* Counts the results, those with gaps apart. false: one does not hold together. */
static bool damage(const subject &subject, long count, const char *seed)
{
    std::mt19937_64 random((uint64_t)atoll(seed));
    long by_error[KERNEL_DUMP_NO_MODULES + 1] = {};
    long incomplete = 0;

    for (long i = 0; i < count; i++) {
        std::vector<uint8_t> bytes = subject.whole;
        kernel_dump dump;
        std::string reason;

        if (subject.places.empty())
            dump_mutate(&bytes, &random);
        else
            memory_mutate(&bytes, subject.places, &random);
        /* A read behind the end must leave the block. */
        bytes.shrink_to_fit();
        const enum kernel_dump_error error =
            kernel_dump_read(bytes.data(), bytes.size(), &dump, &reason);

        by_error[error]++;
        incomplete += !dump.gaps.empty();
        if (!holds_together(error, dump, reason)) {
            printf("%s, seed %s, mutation %ld: error %d, \"%s\"\n", subject.name, seed, i, error,
                   reason.c_str());
            return false;
        }
    }
    printf("%s: %ld with gaps; by result", subject.name, incomplete);
    for (const long number : by_error)
        printf(" %ld", number);
    printf("\n");
    return true;
}

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: mutate_dump COUNT SEED [FILE]\n");
        return 2;
    }
    for (const subject &subject : subjects_of(argc > 3 ? argv[3] : NULL)) {
        if (!damage(subject, atol(argv[1]), argv[2]))
            return 1;
    }
    return 0;
}
