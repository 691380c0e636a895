/*
 * Shared by the benchmarks: the timed pair of a work and its baseline, and the main program, which
 * sets the platform up before the first benchmark runs. One thread.
 */
#ifndef BENCH_SUPPORT_H
#define BENCH_SUPPORT_H

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

/* Returns the directory of this run, with forward slashes. It is below BENCH_FOLDER or the
 * temporary directory and is removed at the end of the program. */
const std::string &bench_folder(void);

/* Ends the program with a message unless condition is true: the benchmark would not measure what it
 * claims. */
void bench_require(bool condition, const char *what);

typedef std::chrono::steady_clock::time_point bench_moment;

static inline bench_moment bench_now(void)
{
    return std::chrono::steady_clock::now();
}

/* Times of the work and its baseline in seconds, one pair per turn. */
class bench_pair
{
  public:
    explicit bench_pair(benchmark::State &state) : state_(state)
    {
    }

    /* Times one turn: calls calls of each side, enough for the resolution of the clock. */
    template <typename Baseline, typename Work> void turn(int calls, Baseline baseline, Work work)
    {
        const bench_moment begin = bench_now();
        for (int call = 0; call < calls; call++)
            baseline();
        const bench_moment middle = bench_now();
        for (int call = 0; call < calls; call++)
            work();
        add(calls, middle - begin, bench_now() - middle);
    }

    /* Adds a turn that the benchmark timed itself. */
    void add(int calls, bench_moment::duration baseline, bench_moment::duration work)
    {
        const double baseline_s = std::chrono::duration<double>(baseline).count() / calls;
        const double work_s = std::chrono::duration<double>(work).count() / calls;

        baselines_.push_back(baseline_s);
        works_.push_back(work_s);
        ratios_.push_back(work_s / baseline_s);
        state_.SetIterationTime(work_s * calls);
    }

    /* Reports the medians as "baseline_ns", "work_ns" and "ratio". "ratio" is the median of the ratios
     * per turn, because a temporary slowdown of the machine affects both sides of a turn. */
    ~bench_pair()
    {
        state_.counters["ratio"] = median(&ratios_);
        state_.counters["baseline_ns"] = median(&baselines_) * 1e9;
        state_.counters["work_ns"] = median(&works_) * 1e9;
    }
    bench_pair(const bench_pair &) = delete;
    bench_pair &operator=(const bench_pair &) = delete;

  private:
    static double median(std::vector<double> *times)
    {
        if (times->empty())
            return 0;
        auto middle = times->begin() + static_cast<std::ptrdiff_t>(times->size() / 2);
        std::nth_element(times->begin(), middle, times->end());
        return *middle;
    }

    benchmark::State &state_;
    std::vector<double> baselines_, works_, ratios_;
};

#endif
