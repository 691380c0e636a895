/* Fixture of the platform's tests: resets the platform before each test and records events. */
#ifndef PLATFORM_TEST_H
#define PLATFORM_TEST_H

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <windows.h>

#include <liboxni_core/host.h>
#include <liboxnibase/host.h>
#include <oxni/base/json.h>
#include <oxni/base/time.h>

/* Thrown by the exit function, as a host does to unwind the plug-in's frames. */
struct run_ended {
};

/* Converts seconds since 1970 to a UTC file time. */
constexpr uint64_t to_100ns(int64_t seconds)
{
    return static_cast<uint64_t>(seconds + 11644473600) * 10000000;
}

/* Sets the simulated clock to 2026-03-01 12:00:00 UTC, tick 1000 ms, without subscribers, log file
 * or failing allocations. Unexpected complaints fail the test. */
class platform_test : public testing::Test
{
  protected:
    void SetUp() override
    {
        TearDown();
        std::filesystem::create_directories(base_folder());
        oxnih_clock_set_zone(nullptr);
        oxnih_clock_simulate(to_100ns(1772366400), 1000);
        oxnih_set_complaint(
            [](const char *text, void *) {
                s_complaints += (s_complaints.empty() ? "" : "\n") + std::string(text);
            },
            nullptr);
        oxnih_log_set_sink([](int, const char *line, void *) { s_log += line; }, nullptr);
        oxnih_set_exit([](void *) { throw run_ended(); }, nullptr);
    }
    void TearDown() override
    {
        EXPECT_EQ("", complaints()) << "unexpected complaints";
        for (json_t *value : s_values)
            json_decref(value);
        s_values.clear();
        s_notes.clear();
        s_log.clear();
        oxnih_core_reset();
        EXPECT_EQ(0U, memory_stats().live_blocks) << "memory leak";
        oxnih_memory_drop_all();
        oxnih_core_set_observer(nullptr, nullptr);
        oxnih_core_set_lenient(0);
        oxnih_log_close();
        oxnih_set_install_dir(nullptr);
        oxnih_set_process_path(nullptr);
        oxnih_set_log_dir(nullptr);
        oxnih_memory_fail(0, 0);
        oxnih_memory_set_mode(OXNIH_MEMORY_PLAIN);
        std::filesystem::remove_all(base_folder());
    }
    static std::filesystem::path base_folder()
    {
        return std::filesystem::temp_directory_path() /
               ("platform_tests_" + std::to_string(GetCurrentProcessId()));
    }

  public:
    /* Records an event of a callback. notes() returns them in order, joined by blanks, and clears
     * them. */
    static void note(const std::string &text)
    {
        s_notes += (s_notes.empty() ? "" : " ") + text;
    }
    static std::string notes()
    {
        return std::exchange(s_notes, "");
    }
    /* Returns the complaints since the last call, joined by line feeds. */
    static std::string complaints()
    {
        return std::exchange(s_complaints, "");
    }
    static bool logged(const std::string &text)
    {
        return s_log.find(text) != std::string::npos;
    }
    /* Returns an absolute path below this process's directory, which is empty at the start of each
     * test; UTF-8. */
    static std::string path(const std::string &name)
    {
        return base_folder().generic_u8string() + "/" + name;
    }
    /* Delivers the events of the next milliseconds. */
    static void run(uint64_t ms)
    {
        EXPECT_EQ(0, oxnih_core_run_until(oxni_time_get_tick_cout() + ms));
    }
    static oxnih_memory_stats memory_stats()
    {
        oxnih_memory_stats now;
        oxnih_memory_get_stats(&now);
        return now;
    }
    /* Returns a JSON value that the fixture owns until the end of the test. */
    static json_t *json_of(const std::string &text)
    {
        s_values.push_back(json_loads(text.c_str(), JSON_DECODE_ANY, nullptr));
        EXPECT_NE(nullptr, s_values.back()) << text;
        return s_values.back();
    }
    /* Returns a file's bytes; "(none)" when it cannot be opened. */
    static std::string file_bytes(const std::string &path)
    {
        std::ifstream file(std::filesystem::u8path(path), std::ios::binary);
        std::ostringstream bytes;
        bytes << file.rdbuf();
        return file.is_open() ? bytes.str() : "(none)";
    }
    static void file_write(const std::string &path, const std::string &bytes)
    {
        std::ofstream(std::filesystem::u8path(path), std::ios::binary) << bytes;
    }

  private:
    static inline std::string s_notes, s_complaints, s_log;
    static inline std::vector<json_t *> s_values;
};

#endif
