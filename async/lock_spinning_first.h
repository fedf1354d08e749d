#pragma once
// Locks a standard mutex after trying it for a few microseconds, before sleeping on it.
//
// For the owner thread on a lock that pool threads hold for a few microseconds at a time.
// A thread that sleeps on such a lock is woken within microseconds, but on a busy machine
// it then waits for a core: on two cores where both run decoding pool threads (batch
// threads, which the kernel lets finish their time slice), that is milliseconds, and the
// owner's due images or hand-overs wait with it. The holder runs on another core and lets
// go long before a sleep would pay off. Pool threads sleep at once: one that spins while
// the holder is preempted only takes the core from the others. Race checkers see a
// standard mutex.
#include <mutex>

namespace orvo {

inline void lockSpinningFirst(std::mutex& mutex)
{
    // try_lock fails at most this often before the thread sleeps: about 10 to 30 us.
    constexpr int kTries = 400;
    for (int i = 0; i < kTries; ++i) {
        if (mutex.try_lock())
            return;
        // A few dozen cycles each, leaving the bus to the holder.
        for (int k = 0; k < 8; ++k) {
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#elif defined(__aarch64__)
            asm volatile("yield");
#endif
        }
    }
    mutex.lock();
}

}  // namespace orvo
