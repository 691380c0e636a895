/* What the platform's tests share: a fresh platform for each test, and notes of what happened. */
#ifndef PLATFORM_TEST_H
#define PLATFORM_TEST_H

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <windows.h>

#include <liboxni_core/host.h>
#include <liboxnibase/host.h>
#include <oxni/base/json.h>

/* Thrown by the host's exit function, as a host does to leave the plug-in's frames. */
struct run_ended {
};

/* Simulated clock at a fixed moment, tick 1000; no subscribers, no log, no failing memory. What was
 * complained about and not looked at fails the test. */
class platform_test : public testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

  public:
    /* Lines that callbacks of the test write, in order, joined by blanks. */
    static void note(const std::string &text);
    static std::string notes();
    /* Complaints since the last call, joined by line feeds. */
    static std::string complaints();
    /* A line that the log got and that holds the text; empty when there is none. */
    static std::string logged(const std::string &text);
    /* Absolute path below a folder of this process, made empty for each test; forward slashes. */
    static std::string path(const std::string &name);
};

/* UTC file time of a date. */
uint64_t utc_100ns(int year, int month, int day, int hour, int minute, int second);
/* A JSON value that a test owns until its end. */
json_t *json_of(const char *text);
/* A file's bytes, by UTF-8 path; "(none)" when it cannot be read. */
std::string file_bytes(const std::string &path);
void file_write(const std::string &path, const std::string &bytes);

#endif
