// The line of streams waiting for a pool thread: a thread takes a stream it ran last from
// near the front, yet no stream waits more than a bounded number of extra turns, and the
// stream that just had its turn is not taken again ahead of the others, nor work of a later
// due time ahead of an earlier one's.
#include "async/stream_line.h"

#include <gtest/gtest.h>

#include <chrono>
#include <initializer_list>
#include <map>
#include <vector>

using namespace orvo;

namespace {

// Streams are told apart by their slot in `streams`; the line holds no real sequences.
struct Line {
    // Streams 0, 1, ... join in this order, each last run on the thread given.
    explicit Line(std::initializer_list<const void*> lastThreads)
    {
        int name = 0;
        for (const void* thread : lastThreads)
            push(name++, thread);
    }

    StreamLine line;
    std::vector<std::shared_ptr<StreamSequence>> streams;
    std::map<const StreamSequence*, int> names;

    // Stream `name`, last run on `thread`, joins the end of the line for an image queued
    // at `since`.
    void push(int name, const void* thread, std::chrono::steady_clock::time_point since = {})
    {
        while (int(streams.size()) <= name) {
            // Distinct non-null pointers that are never dereferenced.
            streams.emplace_back(reinterpret_cast<StreamSequence*>(0x1000 + 0x10 * streams.size()),
                                 [](StreamSequence*) {});
            names[streams.back().get()] = int(streams.size()) - 1;
        }
        line.push({streams[size_t(name)], thread, 0, since});
    }
    int take(const void* thread, int justRan = -1)
    {
        const StreamSequence* ran = justRan >= 0 ? streams[size_t(justRan)].get() : nullptr;
        return names.at(line.take(thread, ran).sequence.get());
    }
};

const char threadA = 'a', threadB = 'b', threadC = 'c';

}  // namespace

TEST(StreamLine, PrefersTheTakersStreamsWithinBoundsOfFairness)
{
    {
        SCOPED_TRACE("a thread takes the first of its own streams near the front");
        Line l({&threadB, &threadB, &threadA, &threadA});
        EXPECT_EQ(l.take(&threadA), 2);
        EXPECT_EQ(l.take(&threadB), 0);
        EXPECT_EQ(l.take(&threadA), 3);
        EXPECT_EQ(l.take(&threadA), 1);  // none of its own left: the front
        EXPECT_TRUE(l.line.empty());
    }
    {
        SCOPED_TRACE("a stream is passed over at most twice");
        Line l({&threadB, &threadA, &threadA, &threadA, &threadA});
        EXPECT_EQ(l.take(&threadA), 1);
        EXPECT_EQ(l.take(&threadA), 2);
        EXPECT_EQ(l.take(&threadA), 0);  // its turn comes before thread a's own third
        EXPECT_EQ(l.take(&threadA), 3);
    }
    {
        SCOPED_TRACE("streams passed over inside the window count too");
        Line l({&threadB, &threadC, &threadA, &threadA, &threadA});
        EXPECT_EQ(l.take(&threadA), 2);
        EXPECT_EQ(l.take(&threadB), 0);
        EXPECT_EQ(l.take(&threadA), 3);  // stream 1 passed over twice now
        EXPECT_EQ(l.take(&threadA), 1);
        EXPECT_EQ(l.take(&threadA), 4);
    }
    {
        SCOPED_TRACE("no further than the window");
        Line l({});
        for (int s = 0; s < int(StreamLine::kWindow); ++s)
            l.push(s, &threadB);
        l.push(int(StreamLine::kWindow), &threadA);
        EXPECT_EQ(l.take(&threadA), 0);
    }
    {
        SCOPED_TRACE("the stream that just ran goes behind the others");
        Line l({&threadB, &threadA});  // stream 1: back at the end after its image on thread a
        EXPECT_EQ(l.take(&threadA, 1), 0);
        EXPECT_EQ(l.take(&threadA), 1);
    }
    {
        SCOPED_TRACE("streams no thread has run yet, and a removed stream");
        Line l({nullptr, nullptr, nullptr});
        l.line.remove(l.streams[1].get());
        EXPECT_EQ(l.line.size(), 2u);
        EXPECT_EQ(l.take(nullptr), 0);
        EXPECT_EQ(l.take(&threadA), 2);
    }
}

TEST(StreamLine, LaterWorkNeverGoesBeforeAnEarlierBurst)
{
    using namespace std::chrono;
    const steady_clock::time_point due = steady_clock::now();
    {
        SCOPED_TRACE("the last image of one due time (an I-frame that ran late) goes first");
        Line l({});
        l.push(0, &threadB, due);
        l.push(1, &threadA, due + milliseconds(40));  // thread a's own, of the next due time
        EXPECT_EQ(l.take(&threadA), 0);
    }
    {
        SCOPED_TRACE("within one burst the taker's own stream still goes first");
        Line l({});
        l.push(0, &threadB, due);
        l.push(1, &threadA, due + StreamLine::kSameBurst / 2);
        EXPECT_EQ(l.take(&threadA), 1);
    }
}
