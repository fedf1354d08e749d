#pragma once
// Time stamps of one frame on its way to the screen, in nanoseconds of a monotonic
// clock (0 = not reached). Written by whoever handles the frame at that stage.
#include "orvo/export.h"
#include <QtGlobal>
#include <array>
#include <chrono>

namespace orvo {

class ORVO_EXPORT RenderingTimings {
public:
    enum Stage { Received = 0, DecodeStarted, DecodeFinished, RenderStarted, RenderFinished, Shown, StageCount };

    static qint64 now()
    {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::steady_clock::now().time_since_epoch()).count();
    }
    void mark(Stage stage) { stamps_[stage] = now(); }
    void set(Stage stage, qint64 ns) { stamps_[stage] = ns; }
    qint64 at(Stage stage) const { return stamps_[stage]; }
    // Nanoseconds from one stage to another; 0 when either was not reached.
    qint64 between(Stage from, Stage to) const
    {
        return (stamps_[from] && stamps_[to]) ? stamps_[to] - stamps_[from] : 0;
    }
    void clear() { stamps_.fill(0); }

private:
    std::array<qint64, StageCount> stamps_{};
};

}  // namespace orvo
