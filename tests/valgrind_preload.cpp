// Preloaded into the memcheck run only. libhwy (linked by libavcodec through libjxl) measures
// its timer with RDTSCP when it loads; valgrind refuses that instruction on CPUs that do not
// announce it, so the process would die before main. The measurement only serves libhwy's
// benchmarking timers, which nothing here uses.
#include <cstdint>

namespace hwy::platform {
uint64_t TimerResolution() { return 1; }
}  // namespace hwy::platform
