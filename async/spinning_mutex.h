#pragma once
// A standard mutex whose lock() tries for a few microseconds before it sleeps.
//
// For locks that pool threads and the owner thread share for a few microseconds at a
// time. A thread that sleeps on such a lock is woken within microseconds, but on a busy
// machine it then waits for a core: on two cores where both run decoding pool threads
// (batch threads, which the scheduler lets finish their time slice), that is milliseconds,
// and the owner thread's due images or hand-overs wait with it. The holder runs on another
// core and lets go long before a sleep would pay off, so a short spin gets the lock without
// giving up the core. Race checkers see a standard mutex.
#include <chrono>
#include <mutex>

namespace orvo {

class SpinningMutex {
public:
    void lock()
    {
        // try_lock fails at most this often before the thread sleeps: about 10 to 30 us.
        for (int i = 0; i < kTries; ++i) {
            if (mutex_.try_lock())
                return;
            relax();
        }
        mutex_.lock();
    }
    bool try_lock() { return mutex_.try_lock(); }
    void unlock() { mutex_.unlock(); }

private:
    static constexpr int kTries = 400;
    static void relax()
    {
        // A few dozen cycles each, leaving the bus to the holder.
        for (int k = 0; k < 8; ++k) {
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#elif defined(__aarch64__)
            asm volatile("yield");
#endif
        }
    }
    std::mutex mutex_;
};

}  // namespace orvo
