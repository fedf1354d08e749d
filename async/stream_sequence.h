#pragma once
// The work of one pooled stream, done in order on Qt's global pool.
//
// The owner thread appends work (images, drains) to a first-in-first-out queue; at most one
// run of the sequence is on the pool at a time, and it works through the queue while the
// scheduler lets it (when another stream waits for a pool thread, the run hands its permit
// over after the current image). Results go to one outbox; the owner thread empties it when
// its thread's wake-up (shared by all the streams it owns) hands the sequence over.
// Cancelling bumps an epoch: a result carries the epoch its work was taken in, and the
// owner drops stale ones.
//
// Threads: append, cancel, dropQueued, close and the waits are called on the owner thread;
// the run is on a pool thread. Everything shared sits behind one standard mutex (which race
// checkers follow), so the stream's Decoder is handed between the two sides through it too.
// The sequence is held by shared pointer (by its owner, the scheduler and a run on the
// pool), so a run that outlives its owner never touches freed memory; after close() it
// touches nothing of the owner.
#include "async/image_decoder.h"

#include <QFuture>
#include <QFutureInterface>
#include <QObject>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace orvo {

struct SequenceWork {
    Image image;           // a drain carries none
    quint64 serial = 0;    // rising, given by the owner
    bool drain = false;
    std::chrono::steady_clock::time_point queued;  // set by append
};

struct SequenceResult {
    quint64 serial = 0;        // of the work it answers
    quint64 epoch = 0;         // the epoch the work was taken in
    quint64 nextSerial = 0;    // work the run went on with (0: the run stopped here)
    bool drain = false;
    ImageOutcome outcome;
};

class OwnerWakeup;

class StreamSequence : public std::enable_shared_from_this<StreamSequence> {
public:
    // `wake` is called on the owner thread, through its event loop, whenever results wait
    // in the outbox; the owner (of the calling thread) must call close() before it goes away.
    StreamSequence(QObject* owner, std::function<void()> wake);
    ~StreamSequence();

    // Owner thread. Queues work and asks the scheduler for a run when none is on its way;
    // true when the work was taken up at once (a run started for it, or goes on with it).
    bool append(SequenceWork work);
    // Results of work taken from now on carry `epoch`.
    void setEpoch(quint64 epoch);
    // Removes queued work (not yet taken) with a serial above `keep`; returns how many
    // images (not drains) went.
    int dropQueued(quint64 keep);
    // Removes the work of `serial` while no run has taken it yet; false once one has.
    bool withdraw(quint64 serial);
    // The oldest result in the outbox; false when empty.
    bool take(SequenceResult& result);
    // No further work is taken and nothing more reaches the owner; waits for the image
    // being decoded.
    void close();
    // Blocks until the image being decoded now (if any) is done.
    void waitCurrent();
    // Blocks until every queued work is done and no run holds the decoder: afterwards the
    // owner may use decoder() itself until it appends again.
    void waitIdle();

    // The stream's decoder: for the run, and for the owner between waitIdle() and the next
    // append.
    ImageDecoder& decoder() { return *decoder_; }
    void setScaleLevel(int level);
    // Applied to the decoder before each image it takes from now on.
    void setMaxOutputSize(const QSize& size);

    // Observers (owner thread).
    bool isDecoding() const;                    // a run decodes an image or drain now
    bool isDecodingStale(quint64 epoch) const;  // ...taken in an epoch other than `epoch`
    // A future that finishes with the image being decoded (made on request); a finished
    // one when nothing is decoded.
    QFuture<VideoFrame> currentFuture();

    // Pool thread: the run, started by the scheduler once per grant.
    void run();
    // The pool thread that ran it last: the scheduler's hint, read and written under the
    // scheduler's lock only.
    const void* lastPoolThread = nullptr;
    // Owner thread, from its wake-up: results wait in the outbox.
    void deliver();
    // Any thread: when the image its run decodes now was queued (the clock's epoch when no
    // run decodes); the scheduler tells bursts apart by it.
    std::chrono::steady_clock::time_point imageInRun() const
    {
        using Clock = std::chrono::steady_clock;
        return Clock::time_point(Clock::duration(imageInRun_.load(std::memory_order_relaxed)));
    }
    void setImageInRun(std::chrono::steady_clock::time_point queued)
    {
        imageInRun_.store(queued.time_since_epoch().count(), std::memory_order_relaxed);
    }

private:
    enum class State { Idle, Requested, Running };
    bool requestRunLocked();  // true when the caller must ask the scheduler for a run
    // Under mutex_; true when the owner must be told (the outbox was empty).
    bool post(SequenceResult result);
    // True the first time results have waited in the outbox longer than the owner thread of
    // a running event loop ever lets them (under mutex_); the caller then warns, unlocked.
    bool ownerLateLocked();

    // The owner thread's wake-up; released by close(). Pool threads only announce to it,
    // so no Qt object is touched off the owner thread.
    std::shared_ptr<OwnerWakeup> wakeup_;
    QObject* const owner_;
    const std::function<void()> wake_;
    std::unique_ptr<ImageDecoder> decoder_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::atomic<std::chrono::steady_clock::rep> imageInRun_{0};
    std::deque<SequenceWork> inbox_;
    std::deque<SequenceResult> outbox_;
    std::chrono::steady_clock::time_point outboxSince_;  // when the outbox last became non-empty
    bool warnedOwnerLate_ = false;
    State state_ = State::Idle;
    bool closed_ = false;
    bool decoding_ = false;
    quint64 epoch_ = 1;
    quint64 decodingEpoch_ = 0;
    quint64 takenCount_ = 0;
    int scale_ = 0;
    QSize outputSize_;
    QFutureInterface<VideoFrame> future_;
    bool futureMade_ = false;
};

}  // namespace orvo
