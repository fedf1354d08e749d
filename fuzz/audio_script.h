#pragma once
// A fuzzed script of operations on an AudioBufferEncoder and the Encoder it feeds. Each
// operation is one byte followed by its arguments. After every step the buffer's
// bookkeeping is checked: the buffered samples lie inside the array and whole frames
// are counted as encoded. The Encoder must be open with mono sound in frames of 1152
// samples at 16 kHz and 16 x 16 pictures at 25 per second.
#include "orvo/audio_buffer_encoder.h"
#include "orvo/encoder.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

namespace orvo::fuzz {

constexpr unsigned int kBufSize = 0x10000;
constexpr int kW = 16, kH = 16;
constexpr int kMaxOps = 48;
// Samples that may be encoded per run: keeps one execution in the millisecond range.
constexpr quint64 kEncodeBudget = 400000;

// The buffer's fields after its sample array, read to check where its samples lie (the
// class keeps them private; a write past the array would land here unseen by ASan).
struct Layout {
    short samples[kBufSize];
    unsigned int start, count, silence, encoded;
    unsigned char discontinuity;
};
static_assert(sizeof(Layout) == sizeof(orvo::AudioBufferEncoder), "layout of AudioBufferEncoder changed");

// A broken property is a finding: say which one, then stop as a crash would.
#define check(ok) \
    ((ok) ? (void)0 : (std::fprintf(stderr, "check failed: %s (line %d)\n", #ok, __LINE__), std::abort()))

inline unsigned int field(const orvo::AudioBufferEncoder& buffer, size_t offset)
{
    unsigned int v = 0;
    std::memcpy(&v, reinterpret_cast<const char*>(&buffer) + offset, sizeof v);
    return v;
}

struct Reader {
    const uint8_t* p;
    size_t n;
    uint8_t byte() { return n ? (--n, *p++) : 0; }
    unsigned int u32()
    {
        unsigned int v = 0;
        for (int i = 0; i < 4; ++i)
            v = v << 8 | byte();
        return v;
    }
    // Small counts most of the time, any value now and then.
    unsigned int count()
    {
        const uint8_t kind = byte();
        switch (kind & 3) {
        case 0: return byte();
        case 1: return unsigned(byte()) << 8 | byte();
        case 2: return (unsigned(byte()) << 16 | unsigned(byte()) << 8 | byte()) & 0x3FFFF;
        default: return u32();
        }
    }
};

// Runs the script in `data` against `enc`; stops the process on a broken property.
inline void runAudioScript(orvo::Encoder& enc, const uint8_t* data, size_t size)
{
    const unsigned int F = unsigned(enc.getAudioInputFrameSize());
    check(F == 1152);

    // Input samples: twice the buffer, so that enqueue_some can always read room(). Made
    // once: the bookkeeping under test does not depend on the sample values.
    static std::vector<short> pool = [] {
        std::vector<short> samples(2 * kBufSize);
        for (size_t i = 0; i < samples.size(); ++i)
            samples[i] = short(i * 31);
        return samples;
    }();
    static std::vector<unsigned char> picture(kW * kH * 3 / 2, 0x80);

    // The buffer (128 KB) lives in static storage, made afresh each run: a heap object of
    // that size is mapped and unmapped by ASan every run, and its page faults cost more
    // than the whole script.
    alignas(orvo::AudioBufferEncoder) static unsigned char storage[sizeof(orvo::AudioBufferEncoder)];
    struct Destroy {
        void operator()(orvo::AudioBufferEncoder* b) const { b->~AudioBufferEncoder(); }
    };
    const std::unique_ptr<orvo::AudioBufferEncoder, Destroy> buffer(new (storage) orvo::AudioBufferEncoder);
    Reader in{data, size};
    quint64 budget = kEncodeBudget;
    quint64 encodedTotal = 0;  // since the last reset_encoded
    for (int op = 0; op < kMaxOps && in.n; ++op) {
        const uint8_t code = in.byte();
        const bool ahead = (code & 0x80) != 0;
        // Encoding work is bounded by the budget; a request that can only buffer may be huge.
        const bool mayEncode = ahead || enc.compareAudioVideoPTS() < 0;
        // Pending silence of billions of samples (a valid request while audio is ahead) would
        // be encoded by the next drain: past the budget, it is dropped first.
        if (mayEncode && field(*buffer, offsetof(Layout, silence)) > budget)
            buffer->discard_silence();
        auto bounded = [&](unsigned int n) -> unsigned int {
            if (!mayEncode)
                return n;
            const unsigned int b = unsigned(std::min<quint64>(budget, 0x3FFFF));
            n = std::min(n, b);
            budget -= n;
            return n;
        };
        unsigned int before = buffer->encoded();
        switch (code & 0x0F) {
        case 0: {
            const unsigned int n = bounded(in.count());
            const unsigned int off = in.byte();
            if (n <= pool.size() - off)
                buffer->enqueue(enc, pool.data() + off, n, ahead);
            break;
        }
        case 1: {
            const unsigned int n = bounded(in.count());
            unsigned int now = 0;
            // encodedNow counts the step with the samples, not a drain that made room first.
            if (n <= pool.size() && buffer->enqueue(enc, pool.data(), n, now, ahead))
                check(now <= buffer->encoded() - before && now % F == 0);
            break;
        }
        case 2: {
            if (mayEncode && budget < kBufSize + F)
                break;
            budget -= mayEncode ? kBufSize : 0;
            unsigned int now = 0;
            const unsigned int room = buffer->room();
            const int k = buffer->enqueue_some(enc, pool.data(), in.count(), now, ahead);
            check(k >= 0 && unsigned(k) <= kBufSize && (room == 0 || unsigned(k) == room));
            break;
        }
        case 3: buffer->enqueue_silence(enc, bounded(in.count()), ahead); break;
        case 4: buffer->flush_to_sync(enc, ahead); break;
        case 5: buffer->discard(); break;
        case 6: buffer->discard_silence(); break;
        case 7: buffer->discard_front(int(in.count())); break;
        case 8: {
            const int position = int(in.count());
            buffer->discard(position, int(in.count()));
            break;
        }
        case 9: {
            const unsigned int had = buffer->buffered();
            const int n = int(in.count());
            const bool ok = buffer->push_silence_at_front(n);
            check(ok == (n == 0 || (n > 0 && quint64(had) + unsigned(n) <= kBufSize)));
            check(buffer->buffered() == (ok ? had + unsigned(std::max(n, 0)) : had));
            break;
        }
        case 10: {
            // One picture moves the video track on by 1/25 s (640 samples).
            const int pictures = 1 + (in.byte() & 7);
            for (int i = 0; i < pictures; ++i)
                enc.encode(picture.data(), picture.data() + kW * kH, picture.data() + kW * kH * 5 / 4, kW, kW / 2,
                           kW / 2, nullptr, 0);
            break;
        }
        case 11: buffer->set_discontinuity_flag((code & 0x10) != 0); break;
        case 12:
            buffer->reset_encoded();
            encodedTotal = before = 0;
            break;
        case 13: {
            const unsigned int room = buffer->room();
            const unsigned int roomEnc = buffer->room(enc);
            check(roomEnc >= room || enc.behindAudioSamples() > 0x7FFFFFFF);
            check(buffer->fits(room) || room == 0);
            break;
        }
        case 14:
            if (budget >= 0x3FFFF) {
                enc.sync_audio_to_video_with_silence((code & 0x10) != 0);
                budget -= 0x3FFFF;
            }
            break;
        default: buffer->enqueue(enc, nullptr, bounded(in.count()), ahead); break;
        }
        // Whole frames only are counted, and the buffered samples stay inside the array.
        encodedTotal += buffer->encoded() - before;
        check(buffer->encoded() == unsigned(encodedTotal));
        check(encodedTotal % F == 0);
        const unsigned int start = field(*buffer, offsetof(Layout, start));
        const unsigned int count = field(*buffer, offsetof(Layout, count));
        check(count == buffer->buffered());
        check(quint64(start) + count <= kBufSize);
    }
}

}  // namespace orvo::fuzz
