#pragma once
// The process-wide scheduler that shares Qt's global thread pool between streams.
//
// Every ConcurrentDecoderImpl queues a ScheduledImage here for each image it takes into
// its backlog; submit() starts the oldest waiting image of any decoder that is alive and
// not busy, while the pool has room. Owner thread only (all pooled decoders of a
// process live on one thread); no locks.
#include "orvo/async_decoder.h"
#include "orvo/image.h"

#include <QList>
#include <QSharedPointer>

namespace orvo {

struct ScheduledImage {
    WeakAsyncDecoder decoder;      // never keeps the decoder alive
    const void* owner = nullptr;   // identity of the decoder, for forgetting its entries
    WeakImage image;               // the strong copy lives in the decoder's backlog
    quint64 imageId = 0;
    qint32 queuedAtMs = -1;        // ms since midnight at queueing; informational
    qint32 holdMs = 1000;          // informational
};

class DecodeScheduler {
public:
    // The one scheduler of the process, created on first use.
    static QSharedPointer<DecodeScheduler> instance();

    void schedule(const WeakAsyncDecoder& decoder, const void* owner, const Image& image, int holdMs = 1000);
    // Starts jobs while the pool has room; returns how many it started (0 when it stops
    // on the pool limit).
    int submit();
    // Drops every entry queued by `owner` (its backlog was emptied or it is going away).
    void forget(const void* owner);
    // A job counted by submit() has been dealt with.
    void jobDone() { --inFlight_; }

    int inFlight() const { return inFlight_; }
    int scheduledCount() const { return list_.size(); }

private:
    QList<QSharedPointer<ScheduledImage>> list_;
    int inFlight_ = 0;
    bool submitting_ = false;
};

}  // namespace orvo
