#include "orvo/audio_buffer_encoder.h"

#include "orvo/av_encoder.h"
#include "orvo/encoder.h"
#include "orvo/log.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace orvo {

namespace {
// Clears the first `n` BYTES at `at`, i.e. only half of n samples: the frames built this
// way keep whatever the rest of that stretch held. Required behaviour where used.
void zeroBytes(short* at, unsigned int n)
{
    std::memset(at, 0, n);
}

// Interleaved values per sample instant; backends other than AVEncoder take mono.
int channelsOf(Encoder& enc)
{
    auto* av = dynamic_cast<AVEncoder*>(enc.getBackend());
    return av && av->getAudioChannels() > 1 ? av->getAudioChannels() : 1;
}

unsigned int saturated(quint64 v)
{
    return v > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<unsigned int>(v);
}
}  // namespace

// The array is cleared once so that the half-cleared frames never read indeterminate
// memory.
AudioBufferEncoder::AudioBufferEncoder() : samples{} {}

unsigned int AudioBufferEncoder::room() const
{
    const quint64 used = static_cast<quint64>(count) + silence;
    return used >= bufsize ? 0 : static_cast<unsigned int>(bufsize - used);
}

unsigned int AudioBufferEncoder::room(Encoder& enc) const
{
    // The encoder counts samples per channel, the buffer interleaved values.
    int behind = static_cast<int>(enc.behindAudioSamples() * channelsOf(enc));
    if (behind < 0)
        behind = 0;
    const quint64 used = static_cast<quint64>(count) + silence;
    return used < bufsize ? static_cast<unsigned int>(behind + bufsize - used) : static_cast<unsigned int>(behind);
}

int AudioBufferEncoder::discard()
{
    start = count = silence = 0;
    return 0;
}

int AudioBufferEncoder::discard_silence()
{
    silence = 0;
    return 0;
}

int AudioBufferEncoder::discard_front(int n)
{
    if (n < 1)
        return 0;
    if (static_cast<unsigned int>(n) >= count) {
        const unsigned int excess = static_cast<unsigned int>(n) - count;
        start = count = 0;
        silence = excess < silence ? silence - excess : 0;
    } else {
        start += n;
        count -= n;
    }
    return 0;
}

int AudioBufferEncoder::discard(int position, int n)
{
    if (n < 1 || position < 1)
        return 0;
    const qint64 pos = position, len = n, c = count, s = silence;
    if (pos < c && pos + len < c) {
        // Moves count - position - n BYTES: only the first half of the tail follows.
        std::memmove(samples + start + pos, samples + start + pos + len, static_cast<size_t>(c - pos - len));
        count -= n;
    } else if (pos < c && pos + len < c + s) {
        count = static_cast<unsigned int>(pos);
        silence = static_cast<unsigned int>(c + s - pos - len);
    } else if (pos < c) {
        count = static_cast<unsigned int>(pos);
        silence = 0;
    } else {
        const qint64 q = pos - c;
        silence = q + len >= s ? static_cast<unsigned int>(q) : static_cast<unsigned int>(s - len);
    }
    return 0;
}

bool AudioBufferEncoder::push_silence_at_front(int n)
{
    if (n == 0)
        return true;
    if (n < 0 || static_cast<quint64>(count) + n > bufsize)
        return false;
    const unsigned int un = static_cast<unsigned int>(n);
    if (start < un) {
        std::memmove(samples + un, samples + start, count * sizeof(short));
        start = un;
    }
    std::memset(samples + start - un, 0, un * sizeof(short));
    count += un;
    start -= un;
    return true;
}

void AudioBufferEncoder::moveToFront()
{
    if (start != 0)
        std::memmove(samples, samples + start, count * sizeof(short));
    start = 0;
}

void AudioBufferEncoder::encodeFrame(Encoder& enc, short* at, unsigned int frameSize)
{
    enc.encode_audio(at, nullptr, 0);
    encoded_ += frameSize;
}

int AudioBufferEncoder::enqueue_n(Encoder& enc, short* input, unsigned int n, bool encodeAhead)
{
    if (!enc.getBackend() || !enc.isAudio())
        return -1;
    const int frame = enc.getAudioInputFrameSize();
    if (frame < 1)
        return -1;
    // The buffer counts values: one frame is frame size times channels interleaved values.
    const qint64 values = static_cast<qint64>(frame) * channelsOf(enc);
    // Frames are built inside the array, next to up to one partial frame: a larger frame
    // would run past its end (AVEncoder::open refuses such configurations).
    if (values < 1 || values > bufsize / 2)
        return -1;
    const unsigned int F = static_cast<unsigned int>(values);
    auto mayGoOn = [&] { return encodeAhead || (enc.getBackend() && enc.compareAudioVideoPTS() < 0); };
    auto levelReached = [&] { return !encodeAhead && (!enc.getBackend() || enc.compareAudioVideoPTS() == 0); };

    unsigned int consumed = 0;
    bool mayEncode = true;
    if (!encodeAhead && !mayGoOn()) {
        mayEncode = false;
    } else {
        // Drain the buffer.
        bool heldBack = false;
        for (;;) {
            if (static_cast<quint64>(count) + silence < F) {
                if (count == 0)
                    start = 0;
                else if (start + F > bufsize)
                    moveToFront();
                break;
            }
            if (silence != 0 && count < F) {
                // The partial frame is completed in place; it must fit before the end.
                if (start + F > bufsize)
                    moveToFront();
                zeroBytes(samples + start + count, F - count);
                silence -= F - count;
            }
            encodeFrame(enc, samples + start, F);
            if (count >= F) {
                start += F;
                count -= F;
                if (count == 0)
                    start = 0;
            } else {
                start = count = 0;
            }
            if (!encodeAhead && !mayGoOn()) {
                heldBack = true;
                break;
            }
        }
        if (heldBack) {
            mayEncode = false;
        } else {
            // Top up the partial frame.
            if (silence != 0) {
                zeroBytes(samples + start + count, silence);
                count += silence;
                silence = 0;
            }
            const unsigned int k = std::min(n, F - count);
            if (input)
                std::memcpy(samples + start + count, input, k * sizeof(short));
            else
                std::memset(samples + start + count, 0, k * sizeof(short));
            count += k;
            consumed = k;
            if (count == F) {
                encodeFrame(enc, samples + start, F);
                start = count = 0;
                if (!mayGoOn())
                    mayEncode = false;
            }
        }
    }

    // Whole frames straight through. These loops stop only when the tracks are level.
    if (mayEncode) {
        if (!input) {
            if (n - consumed >= F) {
                if (count == 0)
                    start = 0;
                if (start + count + F > bufsize)
                    moveToFront();
                zeroBytes(samples + start + count, F);
                while (n - consumed >= F) {
                    encodeFrame(enc, samples + start + count, F);
                    consumed += F;
                    if (levelReached())
                        break;
                }
            }
        } else {
            while (n - consumed >= F) {
                encodeFrame(enc, input + consumed, F);
                consumed += F;
                if (levelReached())
                    break;
            }
        }
    }

    // Buffer the rest.
    unsigned int rest = n - consumed;
    if (rest == 0)
        return 1;
    if (count == 0)
        start = 0;
    unsigned int overflow = 0;
    if (static_cast<quint64>(start) + count + rest + silence > bufsize) {
        moveToFront();
        if (static_cast<quint64>(count) + rest + silence > bufsize) {
            oprint(LogStream::StandardOutput, "audio buffer full,silence will be encoded\n");
            if (static_cast<quint64>(count) + silence < bufsize) {
                const unsigned int fit = bufsize - count - silence;
                overflow = rest - fit;
                rest = fit;
            } else {
                silence = saturated(static_cast<quint64>(silence) + rest);
                return 1;
            }
        }
    }
    if (rest == 0)
        return 1;
    if (!input) {
        silence = saturated(static_cast<quint64>(silence) + rest + overflow);
        return 1;
    }
    std::memset(samples + start + count, 0, silence * sizeof(short));
    std::memcpy(samples + start + count + silence, input + consumed, rest * sizeof(short));
    count += rest + silence;
    silence = overflow;
    return 1;
}

bool AudioBufferEncoder::enqueue(Encoder& enc, short* input, unsigned int n, unsigned int& encodedNow,
                                 bool encodeAhead)
{
    if (!fits(n)) {
        enqueue_n(enc, nullptr, 0, encodeAhead);
        if (!fits(n))
            return false;
    }
    const unsigned int before = encoded_;
    enqueue_n(enc, input, n, encodeAhead);
    encodedNow = encoded_ - before;
    return true;
}

bool AudioBufferEncoder::enqueue(Encoder& enc, short* input, unsigned int n, bool encodeAhead)
{
    unsigned int encodedNow = 0;
    return enqueue(enc, input, n, encodedNow, encodeAhead);
}

int AudioBufferEncoder::enqueue_some(Encoder& enc, short* input, unsigned int /*n*/, unsigned int& encodedNow,
                                     bool encodeAhead)
{
    if (room() == 0) {
        enqueue_n(enc, nullptr, 0, encodeAhead);
        if (room() == 0)
            return 0;
    }
    const unsigned int k = room();
    const unsigned int before = encoded_;
    enqueue_n(enc, input, k, encodeAhead);
    encodedNow = encoded_ - before;
    return static_cast<int>(k);
}

bool AudioBufferEncoder::enqueue_some(Encoder& enc, short* input, unsigned int n, bool encodeAhead)
{
    unsigned int encodedNow = 0;
    return enqueue_some(enc, input, n, encodedNow, encodeAhead) != 0;
}

int AudioBufferEncoder::enqueue_silence(Encoder& enc, unsigned int n, bool encodeAhead)
{
    return enqueue_n(enc, nullptr, n, encodeAhead);
}

int AudioBufferEncoder::flush_to_sync(Encoder& enc, bool encodeAhead)
{
    const unsigned int before = encoded_;
    enqueue_n(enc, nullptr, 0, encodeAhead);
    return static_cast<int>(encoded_ - before);
}

}  // namespace orvo
