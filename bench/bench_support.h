/*
 * What the benches share: the pair of a floor and a work that are timed in turns, and the main
 * program, which sets the platform up before any of them runs. One thread.
 */
#ifndef BENCH_SUPPORT_H
#define BENCH_SUPPORT_H

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

/* The folder of this run, with slashes; below BENCH_FOLDER or the temporary one, and removed at the
 * end of the program. */
const std::string &bench_folder(void);

/* Ends the program: a bench that measures something else than it claims is worse than none. */
void bench_require(bool condition, const char *what);

typedef std::chrono::steady_clock::time_point bench_moment;

static inline bench_moment bench_now(void)
{
    return std::chrono::steady_clock::now();
}

/* Times of the two sides in seconds, one a turn. */
class bench_pair
{
  public:
    explicit bench_pair(benchmark::State &state) : state_(state)
    {
    }

    /* One turn: calls of each side, as many as make the clock's grain harmless. */
    template <typename Floor, typename Work> void turn(int calls, Floor floor, Work work)
    {
        const bench_moment begin = bench_now();
        for (int call = 0; call < calls; call++)
            floor();
        const bench_moment middle = bench_now();
        for (int call = 0; call < calls; call++)
            work();
        add(calls, middle - begin, bench_now() - middle);
    }

    /* A turn that the bench timed itself. */
    void add(int calls, bench_moment::duration floor, bench_moment::duration work)
    {
        const double floor_s = std::chrono::duration<double>(floor).count() / calls;
        const double work_s = std::chrono::duration<double>(work).count() / calls;

        floors_.push_back(floor_s);
        works_.push_back(work_s);
        ratios_.push_back(work_s / floor_s);
        state_.SetIterationTime(work_s * calls);
    }

    /* Hands the medians to the result as "floor_ns", "work_ns" and "ratio". The latter is that of
     * the turns' own ratios: what slows the machine down for a while slows both sides of a turn. */
    ~bench_pair()
    {
        state_.counters["ratio"] = median(&ratios_);
        state_.counters["floor_ns"] = median(&floors_) * 1e9;
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
    std::vector<double> floors_, works_, ratios_;
};

#endif
