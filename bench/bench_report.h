#pragma once
// Ours against a baseline in one process, in interleaved rounds: the order alternates
// (ours then baseline, baseline then ours, ...) so that load from elsewhere on a shared
// machine, and a warm cache, fall on both sides alike. The verdict is the median of the
// per-round ratios; their lowest and highest say how noisy the machine was.
//
// Each comparison prints one line for ./run bench's table:
//   "RESULT|what|ours|baseline|ratio|goal|spread"
// `ours` and `baseline` are rates (higher is better); goals read as ">= 0.95" or "<= 0.10".
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace orvo::bench {

// Process CPU time of every thread, in seconds: what a client pays per frame, whatever
// else the machine is doing.
inline double processCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

inline double median(std::vector<double> v)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// Rounds of at least 5 pairs; ORVO_BENCH_ROUNDS sets more (or fewer, for a quick look).
inline int rounds()
{
    const char* env = std::getenv("ORVO_BENCH_ROUNDS");
    const int n = env ? std::atoi(env) : 0;
    return n > 0 ? n : 7;
}

struct Comparison {
    std::vector<double> ours, baseline;  // one rate per round

    std::vector<double> ratios() const
    {
        std::vector<double> r;
        for (size_t i = 0; i < ours.size() && i < baseline.size(); ++i)
            r.push_back(baseline[i] > 0 ? ours[i] / baseline[i] : 0);
        return r;
    }
    double ratio() const { return median(ratios()); }
    double lowest() const
    {
        const auto r = ratios();
        return r.empty() ? 0 : *std::min_element(r.begin(), r.end());
    }
    double highest() const
    {
        const auto r = ratios();
        return r.empty() ? 0 : *std::max_element(r.begin(), r.end());
    }
};

// Every round runs the baseline and each of `ours` once, in an order that is reversed
// from one round to the next; each function measures once and returns a rate.
inline std::vector<Comparison> interleave(int roundCount, const std::function<double()>& baseline,
                                          const std::vector<std::function<double()>>& ours)
{
    std::vector<Comparison> out(ours.size());
    const size_t n = ours.size() + 1;
    for (int round = 0; round < roundCount; ++round) {
        for (size_t k = 0; k < n; ++k) {
            const size_t which = round % 2 ? n - 1 - k : k;  // 0 is the baseline
            if (which == 0) {
                const double rate = baseline();
                for (Comparison& c : out)
                    c.baseline.push_back(rate);
            } else {
                out[which - 1].ours.push_back(ours[which - 1]());
            }
        }
    }
    return out;
}

inline Comparison interleave(int roundCount, const std::function<double()>& ours,
                             const std::function<double()>& baseline)
{
    return interleave(roundCount, baseline, std::vector<std::function<double()>>{ours}).front();
}

inline void report(const std::string& what, double ours, double baseline, double ratio, const std::string& unit,
                   const std::string& goal, const std::string& spread)
{
    std::printf("RESULT|%s|%.1f %s|%.1f %s|%.3f|%s|%s\n", what.c_str(), ours, unit.c_str(), baseline, unit.c_str(),
                ratio, goal.c_str(), spread.c_str());
    std::fflush(stdout);
}

// The median of the per-round ratios, with the medians of both sides and the spread.
// ORVO_BENCH_ROUND_RATIOS=1 also prints every round's ratio ("ROUNDS|what|r1 r2 ..."), so
// that the rounds of several runs can be pooled into one median where a single run's
// median moves more than the effect being measured.
inline void report(const std::string& what, const Comparison& c, const std::string& unit, const std::string& goal)
{
    char spread[64];
    std::snprintf(spread, sizeof spread, "%.3f-%.3f (%zu)", c.lowest(), c.highest(), c.ours.size());
    report(what, median(c.ours), median(c.baseline), c.ratio(), unit, goal, spread);
    if (std::getenv("ORVO_BENCH_ROUND_RATIOS")) {
        std::printf("ROUNDS|%s|", what.c_str());
        for (double r : c.ratios())
            std::printf(" %.4f", r);
        std::printf("\n");
        std::fflush(stdout);
    }
}

// A single figure against a bound (no baseline run): ratio = value / bound.
inline void reportBound(const std::string& what, double value, double bound, const std::string& unit,
                        const std::string& goal)
{
    report(what, value, bound, bound > 0 ? value / bound : 0, unit, goal, "-");
}

}  // namespace orvo::bench
