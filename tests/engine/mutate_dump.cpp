/*
 * Damages a dump again and again and reads it, in one native program, so that the compiler's checks
 * of memory and arithmetic see every access; they do not exist for Windows programs built here:
 *
 *   g++ -std=c++17 -O1 -g -fsanitize=address,undefined -fno-sanitize-recover -I devhost/dbgeng
 *       tests/engine/mutate_dump.cpp tests/engine/dump_builder.cpp devhost/dbgeng/kernel_dump.cpp
 *   ./a.out COUNT SEED [FILE]
 *
 * Without FILE the dump is one that the tests build. Exit status 1: what was read does not hold
 * together; the line says which mutation of which seed.
 */
#include "dump_builder.h"
#include "kernel_dump.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

static std::vector<uint8_t> dump_to_damage(const char *path)
{
    dump_model model;

    if (path != NULL) {
        std::ifstream file(path, std::ios::binary);

        return std::vector<uint8_t>(std::istreambuf_iterator<char>(file), {});
    }
    model.stack = {0xFFFFF80100010001, 0, 0xFFFFF80000000107, 5};
    return dump_build(model);
}

/* Walks and names everything; false when it cannot be right. */
static bool holds_together(enum kernel_dump_error error, const kernel_dump &dump,
                           const std::string &reason)
{
    const std::vector<kernel_dump_frame> frames = kernel_dump_walk(dump, 99);

    if (reason.empty() != (error == KERNEL_DUMP_OK) || frames.empty() || frames.size() > 99)
        return false;
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

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: mutate_dump COUNT SEED [FILE]\n");
        return 2;
    }
    const long count = atol(argv[1]);
    std::mt19937_64 random((uint64_t)atoll(argv[2]));
    const std::vector<uint8_t> whole = dump_to_damage(argc > 3 ? argv[3] : NULL);
    long by_error[KERNEL_DUMP_NO_CONTEXT + 1] = {};

    for (long i = 0; i < count; i++) {
        std::vector<uint8_t> bytes = whole;
        kernel_dump dump;
        std::string reason;

        dump_mutate(&bytes, &random);
        /* A read behind the end must leave the block. */
        bytes.shrink_to_fit();
        const enum kernel_dump_error error =
            kernel_dump_read(bytes.data(), bytes.size(), &dump, &reason);

        by_error[error]++;
        if (!holds_together(error, dump, reason)) {
            printf("seed %s, mutation %ld: error %d, \"%s\"\n", argv[2], i, error, reason.c_str());
            return 1;
        }
    }
    for (int error = 0; error <= KERNEL_DUMP_NO_CONTEXT; error++)
        printf("result %d: %ld\n", error, by_error[error]);
    return 0;
}
