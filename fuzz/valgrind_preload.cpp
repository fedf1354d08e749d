// Preloaded into the memcheck replays only (run_fuzz.sh). libavcodec loads libhwy (through
// libjxl), whose load-time timer probe executes RDTSCP; valgrind 3.19 cannot decode that
// instruction on hosts whose CPUID does not announce it and kills the process with SIGILL
// before main. The probe is called through the PLT, so this definition takes its place;
// no code of ours or FFmpeg's decoders uses its result.
#include <cstdint>

namespace hwy::platform {

uint64_t TimerResolution() { return 1; }

}  // namespace hwy::platform
