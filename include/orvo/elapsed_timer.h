#pragma once
// A monotonic stopwatch with nanosecond resolution. Started on construction.
#include "orvo/export.h"
#include <QtGlobal>
#include <chrono>

namespace orvo {

class ORVO_EXPORT ElapsedTimer {
public:
    ElapsedTimer() { start(); }
    void start() { start_ = Clock::now(); valid_ = true; }
    // Returns the nanoseconds elapsed before restarting.
    qint64 restart()
    {
        const auto now = Clock::now();
        const qint64 ns = std::chrono::duration_cast<std::chrono::nanoseconds>(now - start_).count();
        start_ = now;
        valid_ = true;
        return ns;
    }
    void invalidate() { valid_ = false; }
    bool isValid() const { return valid_; }
    qint64 nsecsElapsed() const
    {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start_).count();
    }
    qint64 elapsed() const { return nsecsElapsed() / 1000000; }  // milliseconds

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point start_;
    bool valid_ = false;
};

}  // namespace orvo
