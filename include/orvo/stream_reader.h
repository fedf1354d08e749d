#pragma once
// StreamReader: cuts a media file or an in-memory elementary stream into camera images.
//
// Opens any container FFmpeg reads (MP4, MKV, MPEG-TS, AVI, ...) or a raw elementary
// stream (H.264, H.265, MPEG-2, MPEG-4, Motion JPEG), takes its first video stream and
// yields one orvo::Image per access unit, as a camera would send it: the format code of
// the codec ('h', 'e', 'M', 'm', 'j'; also 'x' MxPEG, 'r' JPEG 2000, and 'n'/'p' for VC-2
// fields of 243/288 lines), the I-frame flag, ids 1, 2, 3, ... and the time
// in milliseconds from the stream's time stamps. H.264 and H.265 come out in Annex B
// (start codes, parameter sets in front of each I-frame); MPEG-4 and MPEG-2 carry their
// headers in front of each I-frame too. Raw streams are cut into access units by
// FFmpeg's parsers, so no picture is lost to a naive start-code split.
//
//     orvo::StreamReader reader;
//     if (!reader.open("clip.mp4"))
//         qWarning() << reader.errorString();
//     Decoder decoder;
//     orvo::Image image;
//     orvo::VideoFrame frame;
//     while (reader.read(image) == orvo::StreamReader::Result::Image)
//         if (decoder.decodeImage(image, frame) == Decoder::ImageResult::Picture)
//             show(frame);
//     while (decoder.drain(frame))
//         show(frame);
//
// Errors are results: open() returns false and read() returns Error, errorString()
// says why. One reader per thread at a time; readers are independent of each other.
#include "orvo/export.h"
#include "orvo/image.h"

#include <QByteArray>
#include <QString>

namespace orvo {

class ORVO_EXPORT StreamReader {
public:
    enum class Result {
        Image,  // `image` holds the next access unit
        End,    // the stream is over
        Error,  // reading failed; errorString() says why
    };

    StreamReader();
    ~StreamReader();
    StreamReader(const StreamReader&) = delete;
    StreamReader& operator=(const StreamReader&) = delete;

    // Opens a media file or a raw elementary stream. False (with errorString()) when it
    // cannot be read or has no video stream of a supported codec.
    bool open(const QString& path);
    // Opens a stream held in memory (a raw elementary stream or a whole file image); the
    // bytes are shared, not copied. `formatName` (an FFmpeg demuxer name such as "h264")
    // skips probing.
    bool openData(const QByteArray& data, const QString& formatName = QString());
    void close();
    bool isOpen() const;

    // The next image; on End and Error `image` is left as it was.
    Result read(Image& image);

    // Of the open stream: its format code (0 before open), picture size (0 when unknown).
    quint8 formatCode() const;
    int width() const;
    int height() const;
    QString errorString() const;

    // The format code of an FFmpeg codec id (an AVCodecID), 0 for codecs without one.
    static quint8 formatCodeOf(int codecId);

private:
    struct State;
    bool start();
    bool fail(const QString& message);
    State* d;
};

}  // namespace orvo
