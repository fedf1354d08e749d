#include "backends/hw_session.h"

#include "backends/host_pinning.h"
#include "backends/hw_failure_points.h"
#include "frames/picture_fit.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/hwcontext.h>
#include <libavutil/mem.h>
#include <libavutil/pixdesc.h>
}

#include <cstdint>
#include <new>

namespace orvo::hw {
namespace {

std::string errorText(int error)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(error, text, sizeof text);
    return text;
}

AVPixelFormat firstSoftware(const AVPixelFormat* formats)
{
    for (const AVPixelFormat* f = formats; *f != AV_PIX_FMT_NONE; ++f) {
        const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(*f);
        if (desc && !(desc->flags & AV_PIX_FMT_FLAG_HWACCEL))
            return *f;
    }
    return AV_PIX_FMT_NONE;
}

bool offers(const AVPixelFormat* formats, AVPixelFormat format)
{
    for (const AVPixelFormat* f = formats; *f != AV_PIX_FMT_NONE; ++f)
        if (*f == format)
            return true;
    return false;
}

std::string streamText(const AVCodecContext* context)
{
    const char* profile = avcodec_profile_name(context->codec_id, context->profile);
    return std::string(context->codec ? context->codec->name : "?") + (profile ? std::string(" ") + profile : "") +
           ", " + std::to_string(context->coded_width) + "x" + std::to_string(context->coded_height);
}

}  // namespace

std::atomic<long> Session::reduced_{0};
std::atomic<bool> Session::reducing_{true};

Session::Session(DeviceRef device, AVPixelFormat format)
    : device_(std::move(device)), hwFormat_(format), emulated_(!device_->context())
{
}

Session::~Session()
{
    sws_freeContext(emulation_);
    freeStaging();
}

void Session::freeStaging()
{
    if (pinned_)
        unpinForCuda(device_->context(), pinned_);
    pinned_ = nullptr;
    av_frame_free(&staging_);
}

bool Session::supports(const AVCodec* codec, const Device& device, AVPixelFormat* format, std::string* error)
{
    for (int i = 0;; ++i) {
        const AVCodecHWConfig* config = avcodec_get_hw_config(codec, i);
        if (!config)
            break;
        if ((config->methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX) && config->device_type == device.type()) {
            *format = config->pix_fmt;
            return true;
        }
    }
    *error = std::string("FFmpeg has no ") + av_hwdevice_get_type_name(device.type()) + " decoding for " +
             codec->name;
    return false;
}

void Session::attach(AVCodecContext* context)
{
    context_ = context;
    context->opaque = this;
    context->get_format = getFormat;
    context->thread_count = 1;  // the engine decodes; more threads only add delay and surfaces
    // Engines under-report the levels they decode; the profile, size and format still count.
    context->hwaccel_flags |= AV_HWACCEL_FLAG_IGNORE_LEVEL;
    // Each picture is downloaded as it comes out: one surface beyond the decoder's references.
    context->extra_hw_frames = 1;
    if (emulated_)
        context->apply_cropping = 0;  // cropped here, as a hardware picture is
    else
        context->hw_device_ctx = av_buffer_ref(device_->context());
}

AVPixelFormat Session::getFormat(AVCodecContext* context, const AVPixelFormat* formats)
{
    return static_cast<Session*>(context->opaque)->choose(context, formats);
}

AVPixelFormat Session::choose(AVCodecContext* context, const AVPixelFormat* formats)
{
    const AVPixelFormat software = required_ ? AV_PIX_FMT_NONE : firstSoftware(formats);
    if (!onEngine_)
        return software;
    const AVPixelFormat sw = context->sw_pix_fmt;
    if (sw != AV_PIX_FMT_YUV420P && sw != AV_PIX_FMT_YUVJ420P) {
        // Pictures must come out byte-equal to software ones, which these formats are not
        // after a download (and most engines decode none of them).
        const char* name = av_get_pix_fmt_name(sw);
        leave(std::string("the stream's pictures are ") + (name ? name : "of an unknown format") +
              ": only 8-bit 4:2:0 streams are decoded on the engine");
        return software;
    }
    const bool offered = (emulated_ || offers(formats, hwFormat_)) && !shouldFail(FailurePoint::GetFormat);
    if (!offered) {
        // FFmpeg asks again without the engine's format when the engine could not set the
        // stream up after it was chosen.
        leave(chosenLast_ ? "the engine could not set up its pictures for the stream (" + streamText(context) +
                                "): out of surfaces or device memory, or beyond its limits"
                          : "the engine does not decode this stream (" + streamText(context) + ")");
        return software;
    }
    if (shouldFail(FailurePoint::SurfaceAllocation)) {
        leave("the engine could not set up its pictures for the stream (" + streamText(context) +
              "): out of surfaces or device memory, or beyond its limits");
        return software;
    }
    chosenLast_ = true;
    return emulated_ ? firstSoftware(formats) : hwFormat_;
}

void Session::leave(const std::string& reason)
{
    if (!onEngine_)
        return;
    onEngine_ = false;
    chosenLast_ = false;
    reason_ = reason;
}

int Session::toSoftware(AVFrame* in, AVFrame* out, bool* useOut)
{
    *useOut = false;
    const bool fromEngine = in->hw_frames_ctx || (emulated_ && onEngine_);
    if (!fromEngine) {
        // FFmpeg decoded the picture in software although the engine was chosen (a codec
        // that never asks for a picture format): the path must say so.
        if (onEngine_ && !emulated_)
            leave("FFmpeg decoded the stream's pictures in software");
        // A stream that left the emulated engine inside its decoder is cropped here still.
        if (emulated_ && context_ && !context_->apply_cropping)
            av_frame_apply_cropping(in, context_->flags & AV_CODEC_FLAG_UNALIGNED ? AV_FRAME_CROP_UNALIGNED : 0);
        return 0;
    }
    chosenLast_ = false;
    av_frame_unref(out);
    int ret = 0;
    if (shouldFail(FailurePoint::DeviceLost))
        ret = AVERROR(ENODEV);
    else if (shouldFail(FailurePoint::MidStream)) {
        noteFailure(AVERROR_EXTERNAL, false);
        return AVERROR_EXTERNAL;
    } else if (emulated_) {
        ret = emulatedDownload(in, out);
        // The emulated engine's picture is in memory: reduced after its "download".
        const bool uncut = !in->crop_left && !in->crop_top && !out->crop_left && !out->crop_top;
        const QSize size = ret < 0 || !uncut ? QSize() : reduction(out);
        AVFrame* small = size.isValid() ? av_frame_alloc() : nullptr;
        if (small && reduce(out, size, small) >= 0) {
            av_frame_unref(out);
            av_frame_move_ref(out, small);
        }
        av_frame_free(&small);
    } else {
        // Cut at the left or top: the cut is made after the download, so in software.
        const QSize size = in->crop_left || in->crop_top ? QSize() : reduction(in);
        AVFrame* small = size.isValid() ? av_frame_alloc() : nullptr;
        ret = small && reduce(in, size, small) >= 0 ? download(small, out) : download(in, out);
        av_frame_free(&small);
    }
    if (ret < 0) {
        av_frame_unref(out);
        noteFailure(ret, true);
        return ret;
    }
    out->crop_left = in->crop_left;
    out->crop_top = in->crop_top;
    applyCropping(out);
    *useOut = true;
    return 0;
}

int Session::stagingPicture(AVPixelFormat format, int width, int height, AVFrame* out)
{
    // A fresh picture per download would cost page faults on every picture (a 1080p picture is
    // 3 MB, above what the allocator keeps), more than the copy itself.
    const bool fits = staging_ && staging_->format == format && staging_->width == width &&
                      staging_->height == height && av_buffer_is_writable(staging_->buf[0]);
    if (!fits) {
        freeStaging();
        if (!(staging_ = av_frame_alloc()))
            return AVERROR(ENOMEM);
        staging_->format = format;
        staging_->width = width;
        staging_->height = height;
        const int ret = av_frame_get_buffer(staging_, 0);
        if (ret < 0) {
            av_frame_free(&staging_);
            return ret;
        }
        // One buffer holds every plane: pinned once, the engine writes each picture into it.
        AVBufferRef* buffer = staging_->buf[0];
        if (!emulated_ && pinning() && !staging_->buf[1] &&
            pinForCuda(device_->context(), buffer->data, buffer->size))
            pinned_ = buffer->data;
    }
    return av_frame_ref(out, staging_);
}

int Session::download(const AVFrame* in, AVFrame* out)
{
    const auto* frames = reinterpret_cast<const AVHWFramesContext*>(in->hw_frames_ctx->data);
    if (downloadFrames_ != frames || downloadSwFormat_ != frames->sw_format) {
        // The engine's first download format, as FFmpeg's allocating download picks it.
        AVPixelFormat* formats = nullptr;
        int ret = av_hwframe_transfer_get_formats(in->hw_frames_ctx, AV_HWFRAME_TRANSFER_DIRECTION_FROM, &formats, 0);
        if (ret < 0)
            return ret;
        downloadFormat_ = formats[0];
        av_freep(&formats);
        downloadFrames_ = frames;
        downloadSwFormat_ = frames->sw_format;
    }
    int ret = stagingPicture(downloadFormat_, frames->width, frames->height, out);
    if (ret < 0 || (ret = av_hwframe_transfer_data(out, in, 0)) < 0)
        return ret;
    // The pool's pictures may be larger than this one (alignment): its own size, as
    // FFmpeg's own allocating download gives it.
    out->width = in->width;
    out->height = in->height;
    return av_frame_copy_props(out, in);
}

QSize Session::reduction(const AVFrame* picture)
{
    if (!bound_.isValid() || scalerFailed_ || !reducing_.load(std::memory_order_relaxed))
        return {};
    const QSize size = reducedSize(QSize(picture->width, picture->height), bound_);
    // NV12 carries chroma per pair of samples: odd sizes are fitted in software.
    if (!size.isValid() || size.width() % 2 || size.height() % 2)
        return {};
    if (!scaler_) {
        const AVHWDeviceType type = emulated_ ? AV_HWDEVICE_TYPE_NONE : device_->type();
        std::string error;
        if (!Scaler::available(type, &error)) {
            scalerFailed_ = true;
            scalingIssue_ = error;
            return {};
        }
        scaler_.reset(new (std::nothrow) Scaler(type));
        if (!scaler_)
            return {};
    }
    return size;
}

int Session::reduce(const AVFrame* picture, const QSize& size, AVFrame* out)
{
    const int ret = shouldFail(FailurePoint::Scaling) ? AVERROR(EINVAL)
                                                      : scaler_->scale(picture, size.width(), size.height(), out);
    if (ret < 0) {
        // Not a failure of the engine: the picture is still there, and is downloaded in full.
        scalerFailed_ = true;
        scalingIssue_ = "its scaling filter failed (" + errorText(ret) + ")";
        scaler_.reset();
        return ret;
    }
    reduced_.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

int Session::emulatedDownload(const AVFrame* in, AVFrame* out)
{
    if (in->format != AV_PIX_FMT_YUV420P && in->format != AV_PIX_FMT_YUVJ420P)
        return AVERROR(ENOSYS);
    const int w = in->width, h = in->height;
    int ret = stagingPicture(AV_PIX_FMT_NV12, w, h, out);
    if (ret < 0)
        return ret;
    // Full-range samples are the same bytes: interleaved as they are, never range-converted.
    emulation_ = sws_getCachedContext(emulation_, w, h, AV_PIX_FMT_YUV420P, w, h, AV_PIX_FMT_NV12, SWS_POINT,
                                      nullptr, nullptr, nullptr);
    if (!emulation_)
        return AVERROR(ENOMEM);
    sws_scale(emulation_, in->data, in->linesize, 0, h, out->data, out->linesize);
    if ((ret = av_frame_copy_props(out, in)) < 0)
        return ret;
    // What FFmpeg does to a hardware picture: the right and bottom edges are cut by its
    // size, the left and top ones are left to the caller (here, applyCropping).
    // Checked term by term: the sum of two crop fields may wrap.
    const bool valid = in->crop_left < size_t(w) && in->crop_right < size_t(w) - in->crop_left &&
                       in->crop_top < size_t(h) && in->crop_bottom < size_t(h) - in->crop_top;
    out->width = valid ? w - int(in->crop_right) : w;
    out->height = valid ? h - int(in->crop_bottom) : h;
    out->crop_left = valid ? in->crop_left : 0;
    out->crop_top = valid ? in->crop_top : 0;
    out->crop_right = out->crop_bottom = 0;
    return 0;
}

void Session::applyCropping(AVFrame* nv12) const
{
    const size_t left = nv12->crop_left, top = nv12->crop_top;
    nv12->crop_left = nv12->crop_top = nv12->crop_right = nv12->crop_bottom = 0;
    if ((!left && !top) || left >= size_t(nv12->width) || top >= size_t(nv12->height))
        return;
    // The software picture of the stream is cropped by av_frame_apply_cropping on FFmpeg's
    // aligned yuv420p buffers, which may move the left edge to keep the planes aligned. The
    // same computation runs on a stand-in of such a picture (its planes are never read), so
    // that this picture is cut exactly where the software one is.
    AVFrame* probe = av_frame_alloc();
    if (!probe)
        return;
    probe->format = AV_PIX_FMT_YUV420P;
    probe->width = nv12->width;
    probe->height = nv12->height;
    probe->crop_left = left;
    probe->crop_top = top;
    const int lumaStride = FFALIGN(nv12->width, 64), chromaStride = FFALIGN((nv12->width + 1) / 2, 64);
    probe->linesize[0] = lumaStride;
    probe->linesize[1] = probe->linesize[2] = chromaStride;
    for (int i = 0; i < 3; ++i)
        probe->data[i] = reinterpret_cast<uint8_t*>(uintptr_t(1) << (20 + i));
    const int flags = context_ && (context_->flags & AV_CODEC_FLAG_UNALIGNED) ? AV_FRAME_CROP_UNALIGNED : 0;
    int cutLeft = 0, cutTop = 0;
    if (av_frame_apply_cropping(probe, flags) == 0) {
        cutLeft = nv12->width - probe->width;
        cutTop = nv12->height - probe->height;
    }
    for (int i = 0; i < 3; ++i)
        probe->data[i] = nullptr;
    av_frame_free(&probe);
    nv12->data[0] += ptrdiff_t(cutTop) * nv12->linesize[0] + cutLeft;
    nv12->data[1] += ptrdiff_t(cutTop >> 1) * nv12->linesize[1] + (cutLeft >> 1) * 2;
    nv12->width -= cutLeft;
    nv12->height -= cutTop;
}

bool Session::checkDevice()
{
    if (!onEngine_ || broken_ || !device_->isLost())
        return false;
    broken_ = true;
    leave("the device was lost (" + device_->lostReason() + ")");
    return true;
}

void Session::noteFailure(int error, bool download)
{
    if (!onEngine_ || broken_)
        return;
    // A lost or reset device answers every call with an error; a download fails on nothing
    // else but memory. Such a failure ends every stream on the device at once.
    const bool lost = error == AVERROR(ENODEV) || error == AVERROR(EIO) ||
                      (download && error != AVERROR(ENOMEM) && error != AVERROR(EAGAIN));
    if (lost) {
        const std::string what = (download ? "a picture could not be downloaded: " : "the engine failed: ") +
                                 errorText(error);
        device_->markLost(what);
        broken_ = true;
        leave("the device was lost (" + device_->lostReason() + ")");
        return;
    }
    if (++consecutiveFailures_ >= kMaxConsecutiveFailures) {
        broken_ = true;
        leave(std::to_string(kMaxConsecutiveFailures) + " pictures in a row failed in the engine (the last: " +
              errorText(error) + ")");
    }
}

}  // namespace orvo::hw
