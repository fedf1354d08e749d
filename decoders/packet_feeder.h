#pragma once
// PacketFeeder: hands camera payloads to one FFmpeg decoder and collects its pictures,
// each with the tag of the payload it came from, and tells which payloads will never
// give one.
//
// Cameras cut streams anywhere between NAL units: a payload may hold a whole access
// unit, one NAL unit (a parameter set, SEI, one slice of a multi-slice picture) or any
// run of them. For H.264 and H.265 the feeder assembles whole access units
// (AccessUnitSplitter) and sends each as one packet, so a picture whose slices were lost
// is decoded and concealed as FFmpeg does, and a picture comes out in the call of the
// payload that completes it whenever that can be known. Decoders that hold pictures back
// (B-frames, MPEG-2) return them later; the tag travels with the picture through
// FFmpeg's packet time stamps.
//
// Every unit sent is answered once: by its picture, or as ended (takeEnded) when FFmpeg
// refused it, when a later unit's picture came out in a stream without reordering, when a
// key picture sent after it came out, when far more units followed than any decoder
// holds, or at the drain.
//
// H.264 and H.265 payloads may come with start codes or length-prefixed (4-byte
// big-endian sizes, as MP4 and many SDKs hand them over); the latter are converted to start
// codes first (NalPayloadForm).
//
// One feeder per decoder, used from one thread at a time.
#include "backends/ffmpeg_decoding_loop.h"
#include "decoders/access_unit_splitter.h"
#include "decoders/nal_payload_form.h"

#include <QString>
#include <QtGlobal>
#include <deque>
#include <memory>
#include <vector>

namespace orvo {
namespace formats {
struct Format;
}

class PacketFeeder {
public:
    enum class Result {
        Picture,   // a picture is ready (takePicture)
        Accepted,  // taken without a picture coming out: not an error
        Rejected,  // not decodable (rejectReason says why)
    };
    // What to do with pictures FFmpeg decoded with errors (concealed).
    enum class DamagePolicy { Show, WaitForKeyFrame };

    // Feeds `loop`, which outlives the feeder.
    explicit PacketFeeder(FFmpegDecodingLoop& loop, DamagePolicy policy = DamagePolicy::Show);
    ~PacketFeeder();
    PacketFeeder(const PacketFeeder&) = delete;
    PacketFeeder& operator=(const PacketFeeder&) = delete;

    // Decodes one payload tagged `tag` (> 0). The bytes are copied; they need no padding.
    // `endsUnit`: the payload is the last of its access unit (RTP's marker bit).
    Result feed(const uint8_t* data, int size, qint64 tag, bool endsUnit = false);
    QString rejectReason() const { return rejectReason_; }
    // Moves the oldest ready picture into `out` (unreferenced first); `tag` receives the
    // tag of its payload, or -1 when FFmpeg lost it. False when none is ready.
    bool takePicture(AVFrame* out, qint64* tag);
    // The oldest tag that will never give a picture, with the reason. False when none.
    bool takeEnded(qint64* tag, QString* reason);
    // End of stream: the next picture the decoder still holds, one per call; false once
    // none is left (every tag still waiting is then ended), and the decoder is then ready
    // for a new stream.
    bool drain(AVFrame* out, qint64* tag);
    // Goes on with `loop`, another decoder of the same stream (it outlives the feeder), from
    // the next unit: the units the old decoder held without a picture are answered as
    // ended, with `reason`; pictures that came out already stay ready. The old loop may go.
    void switchLoop(FFmpegDecodingLoop& loop, const QString& reason);
    // Answers every unit still waiting for a picture as ended, with `reason`.
    void abandonWaiting(const QString& reason);
    // Called before a key unit of H.264 or H.265 (an IDR or IRAP picture) is sent, while set
    // (empty: none); it may switch the loop, after drainLoop(), for the key unit to start it.
    void setBeforeKeyUnit(std::function<void()> hook) { beforeKeyUnit_ = std::move(hook); }
    // The pictures the current decoder still holds come out (ready to be taken) and its
    // waiting units are answered: the decoder is done with.
    void drainLoop(const QString& reason);

private:
    struct Sent {
        qint64 tag;
        quint64 serial;
    };
    void send(const uint8_t* data, int size, qint64 tag);
    void accept(AVFrame* frame);
    void end(qint64 tag, const QString& reason);
    static void remember(std::deque<qint64>& tags, qint64 tag);
    // Tags sent before `serial` that can no longer give a picture, after a picture of `serial`.
    void settleBefore(quint64 serial, bool key);
    void restart();
    bool isKeyUnit(const uint8_t* data, int size) const;

    FFmpegDecodingLoop* loop_;
    AVCodecContext* codec_;
    const formats::Format* format_ = nullptr;  // null for a codec without a row
    DamagePolicy policy_;
    std::unique_ptr<AccessUnitSplitter> splitter_;  // H.264 and H.265 only
    std::unique_ptr<NalPayloadForm> form_;          // with the splitter
    std::vector<uint8_t> converted_;                // a length-prefixed payload in start-code form
    const AccessUnitSplitter::Sink sendUnit_;
    const FFmpegDecodingLoop::FrameReady acceptFrame_;
    std::function<void()> beforeKeyUnit_;
    std::deque<AVFrame*> ready_;
    // Empty frame shells for ready_, so that a picture costs no allocation of its own.
    std::vector<AVFrame*> spare_;
    std::deque<Sent> sent_;  // tags sent whose picture has not come out, in sending order
    quint64 nextSerial_ = 1;
    std::deque<std::pair<qint64, QString>> ended_;
    // Tags answered lately: a late picture of an ended one is not shown, and a tag that has
    // a picture or an error gets no further error.
    std::deque<qint64> recentlyEnded_;
    std::deque<qint64> recentlyShown_;
    bool waitingForKey_ = false;
    bool draining_ = false;
    QString rejectReason_;
};

}  // namespace orvo
