#pragma once
// The process-wide scheduler that shares Qt's global thread pool between streams.
//
// Every ConcurrentDecoderImpl queues a ScheduledImage here for each image it takes into
// its backlog; submit() starts the oldest waiting image of any decoder that is alive and
// not busy, while the pool has room. Owner thread only (all pooled decoders of a
// process live on one thread), apart from othersWaiting(), which running jobs read.
#include "orvo/async_decoder.h"
#include "orvo/image.h"

#include <QList>
#include <QSharedPointer>
#include <atomic>

namespace orvo {

struct ScheduledImage {
    WeakAsyncDecoder decoder;      // never keeps the decoder alive
    const void* owner = nullptr;   // identity of the decoder, for forgetting its entries
    WeakImage image;               // the strong copy lives in the decoder's backlog
    quint64 imageId = 0;
    quint64 serial = 0;            // the image's place in its decoder's backlog
};

class DecodeScheduler {
public:
    // The one scheduler of the process, created on first use.
    static QSharedPointer<DecodeScheduler> instance();

    void schedule(const WeakAsyncDecoder& decoder, const void* owner, const Image& image, quint64 serial);
    // Starts jobs while the pool has room; returns how many it started (0 when it stops
    // on the pool limit).
    int submit();
    // Drops every entry queued by `owner` (its backlog was emptied or it is going away).
    void forget(const void* owner);
    // Drops the entry of `owner`'s image `serial` (its running job took that image itself).
    void forget(const void* owner, quint64 serial);
    // True while a stream that is not busy waits for a pool thread (submit() stopped on the
    // pool limit): running jobs then return to the owner thread instead of going on with
    // their own stream's next image. Any thread.
    static bool othersWaiting() { return othersWaiting_.load(std::memory_order_relaxed); }
    // A job counted by submit() has been dealt with.
    void jobDone() { --inFlight_; }

    int inFlight() const { return inFlight_; }
    int scheduledCount() const { return list_.size(); }

private:
    QList<QSharedPointer<ScheduledImage>> list_;
    int inFlight_ = 0;
    bool submitting_ = false;
    static std::atomic<bool> othersWaiting_;
};

}  // namespace orvo
