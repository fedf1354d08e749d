#pragma once
// The line of pooled streams waiting for a pool thread, in order of arrival, from which a
// pool thread takes a stream it ran last when one is near the front.
//
// A stream's pictures then stay on one thread (and so one core) while the line allows, and
// its decoder state and reference pictures are still in that core's caches: on the 2-core
// development machine, plain libavcodec decoders whose streams alternate between two
// threads cost 4-5 % more per picture than ones that keep each stream on its thread.
// Fairness holds: a thread looks no further than the first kWindow streams, no stream is
// passed over more than kMaxPassedOver times, and never by work queued more than kSameBurst
// after its own: a wall's next due time waits for the last image of the one before (an
// I-frame burst that runs into the next due time ends no later for the preference).
//
// Not thread-safe: the scheduler's lock guards it.
#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>

namespace orvo {

class StreamSequence;

class StreamLine {
public:
    static constexpr size_t kWindow = 8;
    static constexpr int kMaxPassedOver = 2;
    // Images queued this close together belong to one burst (one due time of a wall).
    static constexpr std::chrono::microseconds kSameBurst{4000};

    struct Entry {
        std::shared_ptr<StreamSequence> sequence;
        const void* lastThread = nullptr;  // the pool thread that ran it last, a hint
        int passedOver = 0;                // times a later stream went first
        // When the image it waits to decode was queued: tells a later burst of work apart.
        std::chrono::steady_clock::time_point since;
    };

    void push(Entry entry) { entries_.push_back(std::move(entry)); }
    // Removes and returns the stream that `thread` runs next; the line must not be empty.
    // `justRan` has just had its turn and joined the end again: it is never preferred.
    Entry take(const void* thread, const StreamSequence* justRan = nullptr);
    // A closed stream leaves the line.
    void remove(const StreamSequence* sequence);

    bool empty() const { return entries_.empty(); }
    // The oldest image any entry waits for; the epoch of the clock when empty.
    std::chrono::steady_clock::time_point oldest() const;
    size_t size() const { return entries_.size(); }

private:
    std::deque<Entry> entries_;
};

}  // namespace orvo
