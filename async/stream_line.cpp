#include "async/stream_line.h"

#include <algorithm>

namespace orvo {

StreamLine::Entry StreamLine::take(const void* thread, const StreamSequence* justRan)
{
    size_t pick = 0;
    const size_t window = std::min(entries_.size(), kWindow);
    std::chrono::steady_clock::time_point earliest = entries_.front().since;  // of the streams before i
    for (size_t i = 0; i < window; ++i) {
        const Entry& e = entries_[i];
        if (i > 0 && e.since - earliest > kSameBurst)
            break;  // later work: it does not go before the earlier burst's
        if (thread && e.lastThread == thread && !(justRan && e.sequence.get() == justRan)) {
            pick = i;
            break;
        }
        if (e.passedOver >= kMaxPassedOver)
            break;  // its turn cannot be put off again
        earliest = std::min(earliest, e.since);
    }
    for (size_t i = 0; i < pick; ++i)
        ++entries_[i].passedOver;
    Entry entry = std::move(entries_[pick]);
    entries_.erase(entries_.begin() + std::ptrdiff_t(pick));
    return entry;
}

std::chrono::steady_clock::time_point StreamLine::oldest() const
{
    std::chrono::steady_clock::time_point out;
    for (const Entry& e : entries_)
        if (out == std::chrono::steady_clock::time_point() || e.since < out)
            out = e.since;
    return out;
}

void StreamLine::remove(const StreamSequence* sequence)
{
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(),
                                  [sequence](const Entry& e) { return e.sequence.get() == sequence; }),
                   entries_.end());
}

}  // namespace orvo
