#pragma once
// DecoderAV: the generic FFmpeg decoder behind the codes 'h' (H.264), 'e' (H.265),
// 'j' (Motion JPEG), 'M' (MPEG-2), 'm' (MPEG-4) and 'x' (MxPEG). Each instance owns one FFmpeg
// decoder and its reference pictures: use one per stream, from one thread at a time.
// Payloads may hold any cut of the stream between NAL units: H.264 and H.265 are
// assembled into whole access units (see FFmpegModule::decodePayload).
#include "orvo/decoder.h"
#include "orvo/ffmpeg_module.h"

namespace orvo {

class ORVO_EXPORT DecoderAV : public AbstractDecoder {
public:
    explicit DecoderAV(FormatIn format);
    ~DecoderAV() override;
    // Decodes one payload into `frame` (false and `frame` untouched when no picture came
    // out). Unless JPEG 2000 pass-through is on, the payload is first searched for
    // JPEG 2000 boxes and decoding starts where they say.
    // A payload may hold any cut of the stream (see FFmpegModule::decodePayload); false
    // with isPayloadAccepted() means it was taken without a picture coming out.
    bool decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe) override;
    bool drain(orvo::VideoFrame& frame) override;
    bool nextPicture(orvo::VideoFrame& frame) override;
    bool takeEndedPayload(qint64* tag, QString* reason) override;
    // 'h', 'r', 'j', 'M', 'm', 'X', 'e' by format, '?' for an unknown one.
    unsigned char getFormat() const override;
    bool is_stream_based() const override { return true; }
    bool produces_shallow_images() const override { return true; }
    // True when the codec could not be opened: the dispatcher refuses such a decoder.
    bool fail() const override { return !module_.isOpen(); }
    QString failReason() const override { return module_.openFailure(); }
    orvo::DecodingPath decodingPath() const override { return module_.decodingPath(); }

    FormatIn formatIn() const { return format_; }
    void setMaxOutputSize(const QSize& size) override { module_.setMaxOutputSize(size); }

protected:
    FFmpegModule& module() { return module_; }
    // Decodes `size` bytes under the current payload tag and records the outcome.
    bool decodeTagged(const unsigned char* data, int size, orvo::VideoFrame& frame);

private:
    FormatIn format_;
    FFmpegModule module_;
};

// Motion JPEG through FFmpeg, for applications (the dispatcher uses DecoderAV directly).
class ORVO_EXPORT DecoderMJPEG : public DecoderAV {
public:
    DecoderMJPEG() : DecoderAV(FormatIn_MJPEG) {}
    bool is_stream_based() const override { return false; }
};

class ORVO_EXPORT DecoderMPEG4 : public DecoderAV {
public:
    DecoderMPEG4() : DecoderAV(FormatIn_MPEG4) {}
};

}  // namespace orvo
