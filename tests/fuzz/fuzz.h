/*
 * Bad input: passes generated and damaged input to the code that reads it, and checks the results.
 * Every input follows from the seed and its number, so that each can be repeated alone.
 */
#ifndef TESTS_FUZZ_H
#define TESTS_FUZZ_H

#include <cstdint>

#include <random>
#include <string>
#include <vector>

/* Numbers without end from a seed; as even as damage needs. */
class chance
{
  public:
    explicit chance(uint64_t seed) : random_(seed)
    {
    }
    uint64_t next()
    {
        return random_();
    }
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
    std::mt19937_64 random_;
};

/* Changes bytes in up to eight places: bits, edges of numbers, parts cut out, doubled, put in and
 * taken from other. */
void damage(std::string *bytes, const std::string &other, chance &chance);

/* Changes one to three numbers in a part of the bytes in place: all around them stays right, and a
 * reader gets far. end: the offset of the input's end as its numbers count; some come near it. */
void change_numbers(std::string *bytes, size_t begin, size_t size, uint64_t end, chance &chance);

/* One of the good inputs, damaged. */
std::string damaged(const std::vector<std::string> &good, chance &chance);

/* A JSON text: an object with the keys that the reader knows and others, values of all types,
 * sometimes deep or long. words: texts that mean something to the reader. */
std::string odd_json(const std::vector<const char *> &keys, const std::vector<const char *> &words,
                     chance &chance);

/* Copies up to 64 MiB to the end of a block, where an inaccessible page begins. Returns the copy, valid
 * until the next one. */
const uint8_t *fuzz_guarded(const void *bytes, size_t size);

/* Ends the trial: what was required does not hold. */
[[noreturn]] void violated(const std::string &what);

/* Where files of the trials lie. path: UTF-8, with a backslash at the end. */
struct trial_folder {
    std::string path;
    const struct run_folder *folder;

    void empty() const;
};
/* In memory; and on the disk, for files that are mapped. */
extern trial_folder fuzz_memory, fuzz_disk;

/* The bytes of a file of at most 16 MiB. path: UTF-8; where it is relative, from this program's folder. */
std::string file_bytes(const std::string &path);

struct fuzz_target {
    const char *name;
    void (*open)(void); /* before the first input; may be NULL */
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
