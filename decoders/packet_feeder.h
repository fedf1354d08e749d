#pragma once
// PacketFeeder: hands camera payloads to one FFmpeg decoder and collects its pictures,
// each with the tag of the payload it came from.
//
// Cameras cut streams anywhere between NAL units: a payload may hold a whole access
// unit, one NAL unit (a parameter set, SEI, one slice of a multi-slice picture) or any
// run of them. H.264 is decoded in chunk mode, so a picture comes out with the payload
// that completes it. FFmpeg's H.265 decoder wants whole access units: the feeder
// assembles them and sends one when the next picture's first slice (or the NAL units
// in front of it) arrives, so an H.265 picture comes out one payload later. Decoders that
// hold pictures back (B-frames, MPEG-2) return them later; the tag travels with the
// picture through FFmpeg's packet time stamps.
//
// One feeder per decoder, used from one thread at a time.
#include <QByteArray>
#include <QtGlobal>
#include <deque>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace orvo {

class PacketFeeder {
public:
    enum class Result {
        Picture,   // a picture is ready (takePicture)
        Accepted,  // taken without a picture coming out: not an error
        Rejected,  // not decodable: no NAL unit / start code, or refused by FFmpeg
    };

    // Options that must be set before the codec is opened (H.264 chunk mode).
    static void configure(AVCodecContext* codec);

    // For an opened codec. For H.264 the feeder takes the codec's opaque field and
    // watches picture allocation (chaining the allocator already set) and decoded rows.
    explicit PacketFeeder(AVCodecContext* codec);
    ~PacketFeeder();
    PacketFeeder(const PacketFeeder&) = delete;
    PacketFeeder& operator=(const PacketFeeder&) = delete;

    // Decodes one payload tagged `tag` (> 0). The bytes are copied; they need no padding.
    Result feed(const uint8_t* data, int size, qint64 tag);
    // Moves the oldest ready picture into `out` (unreferenced first); `tag` receives the
    // tag of its payload, or -1 when FFmpeg lost it. False when none is ready.
    bool takePicture(AVFrame* out, qint64* tag);
    // End of stream: the next picture the decoder still holds, one per call; false once
    // none is left, and the decoder is then ready for a new stream.
    bool drain(AVFrame* out, qint64* tag);

private:
    void send(const uint8_t* data, int size, qint64 tag, int* result);
    void collect();
    Result feedHevc(const uint8_t* data, int size, qint64 tag);
    void flushHevcUnit(int* result);
    void restart();
    // H.264: does this payload begin a new picture while FFmpeg still holds an unfinished one?
    bool leavesPictureUnfinished(const uint8_t* data, int size) const;
    static int getBuffer(AVCodecContext* codec, AVFrame* frame, int flags);
    static void pictureBand(AVCodecContext* codec, const AVFrame* frame, int offset[AV_NUM_DATA_POINTERS], int y,
                            int type, int height);

    AVCodecContext* codec_;
    AVPacket* packet_;
    AVFrame* received_;
    std::deque<AVFrame*> ready_;
    // Empty frame shells for ready_, so that a picture costs no allocation of its own.
    std::vector<AVFrame*> spare_;
    bool draining_ = false;
    // H.264: a picture was started and its last rows have not been decoded yet.
    bool pictureOpen_ = false;
    int (*nextGetBuffer_)(AVCodecContext*, AVFrame*, int) = nullptr;
    // H.265 access unit being assembled, and the tag of its first slice.
    QByteArray unit_;
    qint64 unitTag_ = -1;
    bool unitHasSlice_ = false;
};

}  // namespace orvo
