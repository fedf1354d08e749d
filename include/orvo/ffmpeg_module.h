#pragma once
// FFmpegModule: one FFmpeg video decoder that turns compressed packets into
// Format_YUV420P frames, plus two swscale conversions between QImage and VideoFrame.
//
// FFmpeg's headers stay out of this header: the codec context and the cached scaler
// live in a private record.
#include "orvo/decoding_path.h"
#include "orvo/video_frame.h"

#include <QByteArray>
#include <QImage>
#include <QSize>
#include <QtGlobal>

namespace orvo {

// The codec behind a DecoderAV / FFmpegModule. Any other value names no codec.
enum FormatIn : qint32 {
    FormatIn_H264 = 1,
    FormatIn_JPEG2000 = 2,
    FormatIn_MJPEG = 3,
    FormatIn_MPEG2 = 4,
    FormatIn_MPEG4 = 5,
    FormatIn_MXPEG = 6,
    FormatIn_HEVC = 7,
};

struct ORVO_EXPORT DecodeContext {
    FormatIn format = FormatIn_H264;
    qint32 reserved = 0;  // DecoderAV sets 1; the module does not read it
};

class ORVO_EXPORT FFmpegModule {
public:
    // Opens the decoder for context.format. A codec that FFmpeg lacks or that will not
    // open is reported on standard error (through the log sink); the module then stays
    // closed: isOpen() is false and decode() returns false.
    explicit FFmpegModule(const DecodeContext& context);
    bool isOpen() const;
    // Why the module stayed closed (empty when open): e.g. hardware decoding required (a
    // preference) but the device did not open.
    QString openFailure() const;
    // Which path the stream's pictures take now (see DecodingPath); changes when the stream
    // leaves the GPU's video engine.
    DecodingPath decodingPath() const;
    ~FFmpegModule();
    FFmpegModule(const FFmpegModule&) = delete;
    FFmpegModule& operator=(const FFmpegModule&) = delete;

    // Decodes one packet and, when it yields a picture, replaces `frame` by a new
    // unmapped Format_YUV420P frame holding it (studio range). `packet` is grown in place
    // by FFmpeg's zeroed input padding. Returns false when no picture came out (the
    // decoder wants more input, or the data was corrupt); `frame` is then untouched.
    // With the zero-copy preference, yuv420p pictures are not copied: the planes hold
    // references to FFmpeg's buffers (which stay valid after the module is gone) and
    // must be treated as read-only, since the decoder may still predict from them.
    // Use one module from one thread at a time.
    bool decode(QByteArray& packet, VideoFrame& frame);

    // What became of one payload (decodePayload).
    enum class PayloadResult {
        Picture,   // `frame` holds a picture
        Accepted,  // taken without a picture coming out (parameter sets, SEI, part of a
                   // picture, a picture held back by the decoder): not an error
        Rejected,  // not decodable
    };
    // Decodes one payload of any cut (a whole access unit, one NAL unit or a run of
    // them; the bytes need no padding) tagged `tag`; `endsUnit` says that the payload is
    // the last of its access unit (RTP's marker bit). On Picture, `frame` holds the first
    // picture that came out and `pictureTag` the tag of the payload it came from (an
    // earlier one when the decoder held it back; -1 when unknown); nextPicture() gives
    // the others. H.264 and H.265 are assembled into whole access units: a picture comes
    // out with the payload that completes it where that can be known (the marker, a
    // stream of whole access units), else with the payload that begins the next one.
    PayloadResult decodePayload(const unsigned char* data, int size, qint64 tag, VideoFrame& frame,
                                qint64* pictureTag, bool endsUnit = false);
    // A further picture of the last decodePayload, in output order; false once none is left.
    bool nextPicture(VideoFrame& frame, qint64* pictureTag);
    // A payload tag that will never give a picture, with the reason; false once none is left.
    bool takeEnded(qint64* tag, QString* reason);
    // The largest picture the client shows (empty: no limit). Motion JPEG, MxPEG and MPEG-4
    // Visual are then decoded at FFmpeg's reduced resolution (where the linked decoder offers
    // it), the smallest that still covers that size. The factor changes only at key pictures
    // (every Motion JPEG picture, MxPEG I-frames, MPEG-4 I-VOPs once a VOL header was seen): pictures
    // before the next one keep the factor of their references, also once the size is cleared.
    void setMaxOutputSize(const QSize& size);
    // Why the last payload was rejected.
    QString rejectReason() const;
    // End of stream: one picture the decoder still holds per call, with its tag; false
    // once none is left, and the decoder then takes a new stream from its next I-frame.
    bool drain(VideoFrame& frame, qint64* pictureTag);

    // Converts `image` into `frame`, which already has its size and a planar format
    // (4:2:0, 4:2:2, else 4:4:4). ARGB32 is read as such, other formats as 24-bit RGB.
    static bool qimageToVideoFrame(const QImage& image, VideoFrame& frame);
    // Converts a mapped planar frame into `image` (ARGB32, else 24-bit RGB), scaling to
    // the image's size.
    static bool videoFrameToQImage(const VideoFrame& frame, QImage& image);

private:
    struct State;
    State* d;
};

// For tests of hosts whose FFmpeg lacks a codec: while set, modules for `format` open
// as if the linked FFmpeg had no decoder for it.
ORVO_EXPORT void setCodecMissingForTesting(FormatIn format, bool missing);
ORVO_EXPORT bool isCodecMissingForTesting(FormatIn format);

}  // namespace orvo
