#pragma once
// FFmpegDecodingLoop: one opened FFmpeg decoder and the send/receive loop every FFmpeg-based
// decoder of the library runs it with: the FFmpeg module's packet feeder, MxPEG and the
// wavelet library.
//
// FFmpeg's "try again" (EAGAIN: take the output first) and "end of stream" (EOF) are handled
// here and are never failures; what is left is an explicit result per packet, with FFmpeg's
// error code behind it. Frames go to a callback as they come out, in output order.
//
// One loop per decoder, used from one thread at a time. The loop owns its codec context.
#include "backends/hw_session.h"
#include "orvo/picture_bound.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace orvo {

class FFmpegDecodingLoop {
public:
    enum class Result {
        Ok,
        SendFailed,             // FFmpeg refused the packet (lastError())
        ReceiveFailed,          // decoding failed while frames were taken (lastError())
        FrameProcessingFailed,  // the callback answered false; frames after it stay in FFmpeg
    };
    // Called with each frame that comes out; the frame is unreferenced after the call, so a
    // callback that keeps it moves its reference out (av_frame_move_ref). False stops the loop.
    using FrameReady = std::function<bool(AVFrame* frame)>;

    struct Options {
        int threads = 0;  // 0: FFmpeg's own choice; fuzz builds always decode on one thread
        // Pictures whose header declares more pixels fail before FFmpeg allocates for them.
        int64_t maxPixels = ORVO_MAX_PICTURE_PIXELS;
        int lowres = 0;  // reduced-resolution decoding: 1/2^lowres of the size (up to the codec's max_lowres)
        // Decode on this device's video engine (null: software). Its pictures reach the
        // callback downloaded and cropped, as software pictures (see hw::Session).
        hw::DeviceRef hardware;
        AVPixelFormat hardwareFormat = AV_PIX_FMT_NONE;  // hw::Session::supports()
        bool hardwareRequired = false;                   // hw::Session::setRequired()
    };

    // Opens the decoder `codec` with `options`; null when memory runs out or the codec will
    // not open (`error`, when given, receives FFmpeg's code).
    static std::unique_ptr<FFmpegDecodingLoop> open(const AVCodec* codec, const Options& options,
                                                    int* error = nullptr);
    ~FFmpegDecodingLoop();
    FFmpegDecodingLoop(const FFmpegDecodingLoop&) = delete;
    FFmpegDecodingLoop& operator=(const FFmpegDecodingLoop&) = delete;

    // Sends `packet` (null: the end of the stream, after which flush() starts a new one) and
    // hands out every frame that is ready after it. A refused packet hands out nothing: frames
    // already waiting stay for receive() or the next packet.
    Result decodePacket(const AVPacket* packet, const FrameReady& ready);
    // decodePacket over `size` bytes at `data`, which need no padding (FFmpeg copies them),
    // with `pts` as the packet's time stamp. No bytes is a refused packet, not the end.
    Result decode(const uint8_t* data, int size, int64_t pts, const FrameReady& ready);
    // The end of the stream: every frame the decoder still holds.
    Result drain(const FrameReady& ready) { return decodePacket(nullptr, ready); }
    // Hands out the frames that are ready, sending nothing.
    Result receive(const FrameReady& ready);
    // Forgets every held frame and the end of the stream: ready for a new stream.
    void flush();

    AVCodecContext* context() const { return context_; }
    // The engine's session; null for a software decoder.
    hw::Session* hardware() const { return hardware_.get(); }
    // FFmpeg's code behind the last failure (0 after a decode that did not fail).
    int lastError() const { return lastError_; }
    static std::string errorText(int error);

private:
    FFmpegDecodingLoop() = default;

    AVCodecContext* context_ = nullptr;
    AVPacket* packet_ = nullptr;
    AVFrame* frame_ = nullptr;
    AVFrame* downloaded_ = nullptr;  // a hardware picture as a software one
    std::unique_ptr<hw::Session> hardware_;
    int lastError_ = 0;
};

}  // namespace orvo
