#pragma once
// AudioBufferEncoder: gathers runs of 16-bit samples of any length into whole audio
// frames for an Encoder, holds sound back while the audio track is ahead of the video
// track, and keeps a count of pending silence that is encoded as zero samples.
//
// The Encoder is not owned; every operation that may encode takes it. One thread at a
// time. Samples are interleaved and counted one per value: with C channels, n counts
// n / C sample instants and one audio frame is frame size times C values.
#include "orvo/export.h"
#include <QtGlobal>

namespace orvo {

class Encoder;

class ORVO_EXPORT AudioBufferEncoder {
public:
    AudioBufferEncoder();

    unsigned int buffered() const { return count; }
    unsigned int capacity() const { return bufsize; }
    unsigned int encoded() const { return encoded_; }
    bool hasData() const { return count != 0; }
    bool hasSilence() const { return silence != 0; }
    bool isEmpty() const { return count == 0 && silence == 0; }
    bool fits(unsigned int n) const { return static_cast<quint64>(silence) + count + n <= bufsize; }
    unsigned int room() const;
    // room() plus the samples the audio track owes the video track (encoded straight away).
    unsigned int room(Encoder& enc) const;
    qint64 max_enqueue_samples() const { return 0xFFFFFFFFLL; }
    bool out_of_sync() const { return discontinuity != 0; }
    bool skipped_forward() const { return discontinuity != 0; }
    bool is_continuous() const { return discontinuity == 0; }

    void set_discontinuity_flag(bool on) { discontinuity = on ? 1 : 0; }
    void reset_encoded() { encoded_ = 0; }
    int discard();
    int discard_silence();
    int discard_front(int n);
    // Removes n samples at `position` (buffered samples first, then pending silence);
    // position 0 is served by discard_front.
    int discard(int position, int n);
    bool push_silence_at_front(int n);

    // encodeAhead false: encode only while audio lags video; true: every whole frame.
    bool enqueue(Encoder& enc, short* samples, unsigned int n, bool encodeAhead);
    bool enqueue(Encoder& enc, short* samples, unsigned int n, unsigned int& encodedNow, bool encodeAhead);
    // Reads exactly room() samples from `samples`, whatever n says.
    int enqueue_some(Encoder& enc, short* samples, unsigned int n, unsigned int& encodedNow, bool encodeAhead);
    bool enqueue_some(Encoder& enc, short* samples, unsigned int n, bool encodeAhead);
    int enqueue_silence(Encoder& enc, unsigned int n, bool encodeAhead);
    // Encodes what the buffer may encode now; returns the samples encoded.
    int flush_to_sync(Encoder& enc, bool encodeAhead);

private:
    int enqueue_n(Encoder& enc, short* input, unsigned int n, bool encodeAhead);
    void moveToFront();
    void encodeFrame(Encoder& enc, short* at, unsigned int frameSize);

    static const unsigned int bufsize = 0x10000;
    short samples[bufsize];
    unsigned int start = 0;
    unsigned int count = 0;
    unsigned int silence = 0;
    unsigned int encoded_ = 0;
    unsigned char discontinuity = 0;
};

}  // namespace orvo
