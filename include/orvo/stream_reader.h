#pragma once
// StreamReader: cuts a media file, a network stream or an in-memory elementary stream into
// camera images.
//
// Opens any container FFmpeg reads (MP4, MKV, MPEG-TS, AVI, ...), a network source
// (rtsp://, and the other network inputs FFmpeg reads: http://, rtmp://, udp://, srt://, ...)
// or a raw elementary stream (H.264, H.265, MPEG-2, MPEG-4, Motion JPEG), takes its first
// video stream and yields one orvo::Image per access unit, as a camera would send it: the
// format code of the codec ('h', 'e', 'M', 'm', 'j'; also 'x' MxPEG, 'r' JPEG 2000, and
// 'n'/'p' for VC-2 fields of 243/288 lines), the I-frame flag, ids 1, 2, 3, ... and the time
// in milliseconds. Each image holds one whole access unit and is marked so
// (Image::isAccessUnitEnd()), so a decoder hands its picture on at once. H.264 and H.265
// come out in Annex B (start codes, parameter sets in front of each I-frame); MPEG-4 and
// MPEG-2 carry their headers in front of each I-frame too. Raw streams are cut into access
// units by FFmpeg's parsers, so no picture is lost to a naive start-code split.
//
// Times come from the stream: RTP time for RTSP, the container's time stamps for files.
// A raw elementary stream has none: its images are timed by the stream's own timing
// information (H.264/H.265 VUI), else by setFrameRate() (default kDefaultFrameRate).
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
// Network sources: open() and each read() wait at most timeout() for the source (default
// kDefaultTimeoutMs); interrupt(), from any thread, makes a blocked open() or read() return
// at once. A camera client reads on a thread of its own and hands the images to a
// ConcurrentDecoder on the decoder's owner thread (README, examples/rtsp_client).
//
// Errors are results: open() returns false and read() returns Error, errorString() says why,
// with FFmpeg's own reason ("Connection refused", "Server returned 404 Not Found", and what
// FFmpeg logged, unless FFmpegLogMode::Untouched leaves FFmpeg's log to the host). After an
// Error the stream is over: open it again. One reader per thread at a time; readers are
// independent of each other.
#include "orvo/export.h"
#include "orvo/image.h"

#include <QByteArray>
#include <QString>

struct AVPacket;

namespace orvo {

class ORVO_EXPORT StreamReader {
public:
    enum class Result {
        Image,  // `image` holds the next access unit
        End,    // the stream is over; for a network source errorString() says the server
                // ended it (a finished session and a closed connection look the same)
        Error,  // reading failed; errorString() says why
    };
    // How an RTSP source carries its RTP packets.
    enum class Transport {
        Auto,  // FFmpeg's choice: UDP, falling back to TCP where UDP cannot be set up
        Tcp,   // interleaved in the RTSP connection: no loss, works through firewalls and NAT
        Udp,   // separate UDP ports: least delay, packets may be lost
    };
    static constexpr int kDefaultTimeoutMs = 5000;
    static constexpr double kDefaultFrameRate = 25.0;

    StreamReader();
    ~StreamReader();
    StreamReader(const StreamReader&) = delete;
    StreamReader& operator=(const StreamReader&) = delete;

    // Settings, read by the next open(): the transport of RTSP sources (default Auto); how
    // long open() and each read() wait for a network source before they fail (default
    // kDefaultTimeoutMs; 0 or less waits for ever); the frame rate that times a raw
    // elementary stream without timing of its own (default kDefaultFrameRate).
    void setTransport(Transport transport);
    Transport transport() const;
    void setTimeout(int milliseconds);
    int timeout() const;
    void setFrameRate(double framesPerSecond);
    double frameRate() const;

    // Thread-safe, callable from any thread while another one is in open() or read(): that
    // call returns at once (false or Error, errorString() "interrupted"), and so does every
    // later open() and read() until close(). The way to stop a reader thread that waits on
    // a camera.
    void interrupt();
    bool isInterrupted() const;

    // Opens a media file, a network URL or a raw elementary stream. False (with
    // errorString()) when it cannot be read or has no video stream of a supported codec.
    bool open(const QString& path);
    // Opens a stream held in memory (a raw elementary stream or a whole file image); the
    // bytes are shared, not copied. `formatName` (an FFmpeg demuxer name such as "h264")
    // skips probing.
    bool openData(const QByteArray& data, const QString& formatName = QString());
    // Closes the source and clears an interrupt(); settings stay.
    void close();
    bool isOpen() const;
    // True for a network source.
    bool isNetworkStream() const;

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
    Result failRead(const QString& message);
    qint64 timeOf(const AVPacket* pkt);
    State* d;
};

}  // namespace orvo
