#pragma once
// The process-wide scheduler that shares Qt's global thread pool fairly between streams.
//
// A fair permit counter: a stream with work asks for a permit; while fewer runs hold one
// than the pool has threads it gets one at once, otherwise it waits in line. A run that
// sees others waiting hands its permit to the first in line after its current image and,
// when it has more work, joins the end of the line: with more streams than threads every
// stream decodes one image per turn; with room to spare a stream works through its queue
// without leaving the pool. A pool thread that picks up work prefers a stream it ran last
// (see StreamLine). Any thread.
#include "async/stream_line.h"

#include <QSharedPointer>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

namespace orvo {

class StreamSequence;

class DecodeScheduler {
public:
    // The one scheduler of the process, created on first use.
    static QSharedPointer<DecodeScheduler> instance();

    // `sequence` wants to run for an image queued at `since`: it starts on the pool now or
    // when a permit frees. True when it got a permit at once.
    bool request(const std::shared_ptr<StreamSequence>& sequence, std::chrono::steady_clock::time_point since);

    struct Finished {
        // Granted work follows (the permit passed on, or a grant waits) or another run
        // decodes an image.
        bool poolBusy = false;
        std::chrono::steady_clock::time_point nextSince;  // the earliest such image's queueing
    };
    // The run of `ran` gives its permit back; with `again`, the stream joins the end of the
    // line first, for its image queued at `againSince`.
    Finished finish(const std::shared_ptr<StreamSequence>& ran, bool again, std::chrono::steady_clock::time_point againSince);
    // A closed sequence leaves the line.
    void forget(const StreamSequence* sequence);
    // True while a stream waits for a permit: a run then hands its permit over after its
    // current image. Read without the lock by running sequences.
    bool othersWaiting() const { return othersWaiting_.load(std::memory_order_relaxed); }

    int inFlight() const;        // permits held (runs on the pool or about to start)
    int scheduledCount() const;  // streams waiting for a permit

    // Pool thread: runs a granted sequence, one it ran last if there is one.
    void runReady();

private:
    void start(StreamLine::Entry entry);  // without the lock

    mutable std::mutex mutex_;
    StreamLine waiting_;
    StreamLine ready_;  // granted, not yet picked up by a pool thread
    std::vector<const StreamSequence*> running_;  // runs on pool threads now
    int held_ = 0;
    std::atomic<bool> othersWaiting_{false};
};

}  // namespace orvo
