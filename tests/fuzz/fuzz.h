/*
 * Bad input: programs of one process that hand made-up and damaged input to what reads it, and look
 * whether it holds. Every input follows from a seed and its number, so that one alone can be tried
 * again.
 */
#ifndef TESTS_FUZZ_H
#define TESTS_FUZZ_H

#include <stdint.h>

#include <string>
#include <vector>

/* Numbers without end from a seed; as even as damage needs. */
class chance
{
  public:
    explicit chance(uint64_t seed) : state_(seed)
    {
    }
    uint64_t next();
    /* Below limit; 0 for a limit of 0. */
    size_t below(size_t limit);
    /* Once in n. */
    bool one_in(size_t n);
    /* One of the words, which blanks separate. */
    std::string word(const char *words);
    /* An element of an array or a vector. */
    template <typename List> const auto &of(const List &list)
    {
        return list[below(std::size(list))];
    }

  private:
    uint64_t state_;
};

/* Changes bytes in up to eight places: bits, edges of numbers, parts cut out, doubled, put in and
 * taken from other. */
void damage(std::string *bytes, const std::string &other, chance &chance);

/* A JSON text: members of an object that somebody reads among any others, any types, deep and
 * long ones now and then. keys: the names that somebody reads, words: texts that mean something. */
std::string odd_json(const std::vector<const char *> &keys, const std::vector<const char *> &words,
                     chance &chance);

/* Bytes that end where an inaccessible page begins. */
class guarded
{
  public:
    explicit guarded(size_t most);
    /* Where the copy stands, until the next one. size at most the most; larger is cut. */
    const uint8_t *put(const void *bytes, size_t *size);

  private:
    uint8_t *end_;
    size_t most_;
};

/* Ends the trial: what was required does not hold. */
[[noreturn]] void violated(const std::string &what);

/* Where files of the trials lie, with a backslash at the end; UTF-8. */
const std::string &fuzz_folder(void);
/* The same on the disk, for files that are mapped: those of the other folder are in memory. */
const std::string &fuzz_real_folder(void);
/* Deletes all of them. */
void fuzz_empty_folder(void);

/* Replaces a file of the trials by those bytes. */
void put_file(const std::string &path, const std::string &bytes);

struct fuzz_target {
    const char *name;
    void (*open)(void);
    /* number: of the input, for targets that start afresh now and then. */
    void (*try_one)(chance &chance, uint64_t number);
    uint64_t period; /* inputs from one fresh start to the next; 1: each is independent */
};

/* Adds a target to the program. */
bool fuzz_add(const fuzz_target &target);

/* Defines a target and adds it, on one line: the build and ./dev fuzz read names and the number of
 * inputs in the test run from these lines. */
#define FUZZ_TARGET(name, open, try_one, period, inputs)                                           \
    [[maybe_unused]] static const bool s_##name##_added = fuzz_add({#name, open, try_one, period});

#endif
