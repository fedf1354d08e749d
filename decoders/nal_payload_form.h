#pragma once
// NalPayloadForm: tells H.264 and H.265 payloads with start codes (Annex B, what cameras and
// RTP depacketizers give) from length-prefixed ones (each NAL unit preceded by its size in
// 4 bytes, big-endian: the AVCC/HVCC form of MP4 samples and of many camera SDKs), and puts
// the latter into start-code form.
//
// A payload is taken as length-prefixed when its lengths cover it exactly and each one
// starts a NAL unit with a valid header. Such a payload can also hold a start code (a
// length of 256 to 511 is written 00 00 01 xx): where both readings hold, the form the
// stream showed earlier decides, and before that the start-code reading wins unless it
// meets bytes that a start-code stream never holds or a first NAL header it does not begin
// with. A stream keeps its form, so one payload that only one reading explains settles it.
//
// A plain byte parser: no FFmpeg, no allocation beyond the conversion buffer. One object per
// stream, used from one thread at a time.
#include "decoders/access_unit_splitter.h"

#include <cstdint>
#include <vector>

namespace orvo {

class NalPayloadForm {
public:
    enum class Form {
        StartCodes,      // Annex B: decode as it is
        LengthPrefixed,  // convert first (toStartCodes)
        Neither,         // no start code, and the lengths do not cover the payload
    };

    explicit NalPayloadForm(AccessUnitSplitter::Codec codec) : codec_(codec) {}

    // The form of one payload of the stream; remembers what an unambiguous payload shows.
    Form classify(const uint8_t* data, int size);
    // Forgets the stream's form (a new stream).
    void reset() { stream_ = Form::Neither; }

    // True when 4-byte lengths cover data[0..size) exactly, each followed by a NAL unit
    // with a valid header of `codec`.
    static bool coversWithLengths(const uint8_t* data, int size, AccessUnitSplitter::Codec codec);
    // The same NAL units with a 4-byte start code in place of each length: `out` has the
    // payload's size. Only for payloads coversWithLengths() accepts.
    static void toStartCodes(const uint8_t* data, int size, std::vector<uint8_t>& out);

private:
    bool startCodeReadingHolds(const uint8_t* data, int size) const;

    AccessUnitSplitter::Codec codec_;
    Form stream_ = Form::Neither;  // Neither: not known yet
};

}  // namespace orvo
