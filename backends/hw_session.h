#pragma once
// hw::Session: one FFmpeg decoder on the GPU's video engine, through FFmpeg's generic
// hardware decoding (a shared device context on the codec context, get_format choosing the
// engine's picture format, av_hwframe_transfer_data downloading each picture). The same
// code serves every engine: only the device differs.
//
// The session decides, picture format negotiation by negotiation, whether the engine takes
// the stream; where it does not (no hardware format offered for the codec, profile, bit
// depth, chroma format or size, or the engine's pictures could not be allocated), FFmpeg goes
// on decoding the same stream in software in the same decoder, and the session says why.
// Where the engine fails under a running stream (kMaxConsecutiveFailures pictures in a row,
// or a lost device) the decoder must be replaced: needsNewDecoder().
//
// Pictures leave as software pictures: 8-bit 4:2:0 streams only take the engine, and their
// pictures come out as NV12 (the engine's download format), cropped exactly as FFmpeg crops
// the software picture of the same stream.
//
// One session per codec context, used from the thread that decodes.
#include "backends/hw_device.h"
#include "backends/hw_scaler.h"

#include <QSize>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libswscale/swscale.h>
}

#include <atomic>
#include <memory>
#include <string>

namespace orvo::hw {

// Pictures failing in the engine one after the other before a stream leaves it. Camera
// streams are damaged often, and a damaged picture may fail once: one failure, or a few, is
// no reason to leave; a run of them is.
constexpr int kMaxConsecutiveFailures = 5;

class Session {
public:
    // `format`: the engine's picture format for the codec (supports()).
    Session(DeviceRef device, AVPixelFormat format);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Whether FFmpeg's `codec` decodes on `device`'s engine through a device context; the
    // engine's picture format goes to `format`, and `error` says why not.
    static bool supports(const AVCodec* codec, const Device& device, AVPixelFormat* format, std::string* error);

    // Sets up `context` (allocated, not opened) for the engine: the device, get_format, one
    // thread, few extra pictures, levels not checked.
    void attach(AVCodecContext* context);
    // Required: a stream the engine does not take gets no picture format at all (its
    // decoding fails) rather than software pictures.
    void setRequired(bool on) { required_ = on; }

    // The client's largest output size (invalid: none). Larger pictures are reduced on the
    // engine before their download where its scaling filter is there (hw::Scaler), to the
    // size the software fit gives (reducedSize); the others are downloaded in full.
    void setOutputBound(const QSize& bound) { bound_ = bound; }
    // Why pictures are no longer reduced on the engine (no filter for it, the filter library
    // missing, or its graph failed), once; empty otherwise.
    std::string takeScalingIssue()
    {
        std::string issue;
        issue.swap(scalingIssue_);  // a moved-from string need not be empty
        return issue;
    }
    // Pictures reduced on an engine so far, process-wide, and whether engines may reduce at
    // all (tests and benchmarks compare with the software fit).
    static long reducedPictures() { return reduced_.load(std::memory_order_relaxed); }
    static void setReducing(bool on) { reducing_.store(on, std::memory_order_relaxed); }

    // A frame as the decoder gave it, as the software picture to hand on: `out` receives the
    // downloaded picture of a hardware frame (and *useOut is true), a software frame stays in
    // `in`. Negative: an error (the picture is lost; noteFailure was called).
    int toSoftware(AVFrame* in, AVFrame* out, bool* useOut);
    // A decoder call failed with `error` / a picture came out.
    void noteFailure(int error, bool download);
    void notePicture() { consecutiveFailures_ = 0; }

    // Leaves the engine when another stream found the device lost; true when it did.
    bool checkDevice();

    // While true the stream's pictures come from the engine.
    bool onEngine() const { return onEngine_; }
    // The engine failed under the running stream: the decoder must be replaced (the reason
    // says why; lost device: every stream on it is told through the device).
    bool needsNewDecoder() const { return broken_; }
    // Why the stream is no longer on the engine; empty while it is.
    const std::string& leaveReason() const { return reason_; }
    const Device& device() const { return *device_; }

private:
    static AVPixelFormat getFormat(AVCodecContext* context, const AVPixelFormat* formats);
    AVPixelFormat choose(AVCodecContext* context, const AVPixelFormat* formats);
    void leave(const std::string& reason);
    int download(const AVFrame* in, AVFrame* out);
    int emulatedDownload(const AVFrame* in, AVFrame* out);
    // The size `picture` (uncropped at its left and top) is reduced to on the engine; invalid
    // where it is downloaded as it is.
    QSize reduction(const AVFrame* picture);
    // `picture` reduced to `size` into `out`; negative: not reduced (scaling on this session
    // stops: the picture is downloaded in full, as every later one).
    int reduce(const AVFrame* picture, const QSize& size, AVFrame* out);
    // Refers `out` to the session's download picture, (re)allocated only when its format or
    // size changes or a frame still holds it.
    int stagingPicture(AVPixelFormat format, int width, int height, AVFrame* out);
    void freeStaging();
    void applyCropping(AVFrame* nv12) const;

    DeviceRef device_;
    AVPixelFormat hwFormat_ = AV_PIX_FMT_NONE;
    bool emulated_;
    bool required_ = false;
    AVCodecContext* context_ = nullptr;
    bool onEngine_ = true;
    bool broken_ = false;
    bool chosenLast_ = false;  // the last negotiation chose the engine and no picture came since
    int consecutiveFailures_ = 0;
    std::string reason_;
    SwsContext* emulation_ = nullptr;
    AVFrame* staging_ = nullptr;
    void* pinned_ = nullptr;  // staging_'s memory, page-locked for the device
    // The engine's picture pool (and its format) that downloadFormat_ was chosen for.
    const void* downloadFrames_ = nullptr;
    AVPixelFormat downloadSwFormat_ = AV_PIX_FMT_NONE;
    AVPixelFormat downloadFormat_ = AV_PIX_FMT_NONE;
    QSize bound_;
    std::unique_ptr<Scaler> scaler_;
    bool scalerFailed_ = false;  // no filter for the engine, or it failed once
    std::string scalingIssue_;
    static std::atomic<long> reduced_;
    static std::atomic<bool> reducing_;
};

}  // namespace orvo::hw
