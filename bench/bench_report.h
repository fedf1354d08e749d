#pragma once
// One comparison line for ./run bench's table: "RESULT|what|ours|baseline|ratio|goal".
// `ours` and `baseline` are rates (higher is better) unless the goal says "<=".
#include <cstdio>
#include <string>

namespace orvo::bench {

inline void report(const std::string& what, double ours, double baseline, const std::string& unit,
                   const std::string& goal)
{
    const double ratio = baseline > 0 ? ours / baseline : 0.0;
    std::printf("RESULT|%s|%.1f %s|%.1f %s|%.3f|%s\n", what.c_str(), ours, unit.c_str(), baseline, unit.c_str(),
                ratio, goal.c_str());
    std::fflush(stdout);
}

}  // namespace orvo::bench
