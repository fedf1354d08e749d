#include "orvo/ffmpeg_module.h"

#include "decoders/ffmpeg_log.h"
#include "decoders/packet_feeder.h"
#include "orvo/decoder.h"
#include "orvo/decoder_preferences.h"
#include "orvo/log.h"

#include "frames/sws_formats.h"
#include "frames/sws_scale.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>

namespace orvo {
namespace {

LogCategory ffmpegCategory("orvo.ffmpeg");

// Decoders of the old API were given 32 zeroed bytes after each packet; today's
// decoders may read further ahead, so the larger of the two is appended.
constexpr int kInputPadding = std::max(32, AV_INPUT_BUFFER_PADDING_SIZE);

AVCodecID codecIdOf(FormatIn format)
{
    switch (format) {
    case FormatIn_H264: return AV_CODEC_ID_H264;
    case FormatIn_JPEG2000: return AV_CODEC_ID_JPEG2000;
    case FormatIn_MJPEG: return AV_CODEC_ID_MJPEG;
    case FormatIn_MPEG2: return AV_CODEC_ID_MPEG2VIDEO;
    case FormatIn_MPEG4: return AV_CODEC_ID_MPEG4;
    case FormatIn_MXPEG: return AV_CODEC_ID_MXPEG;
    case FormatIn_HEVC: return AV_CODEC_ID_HEVC;
    }
    return AV_CODEC_ID_NONE;
}

AVPixelFormat defaultGetFormat(AVCodecContext* context, const AVPixelFormat* formats)
{
    return avcodec_default_get_format(context, formats);
}

bool isFullRange(const AVFrame* picture)
{
    switch (picture->format) {
    case AV_PIX_FMT_YUVJ420P:
    case AV_PIX_FMT_YUVJ422P:
    case AV_PIX_FMT_YUVJ444P:
    case AV_PIX_FMT_YUVJ440P:
    case AV_PIX_FMT_YUVJ411P:
        return true;
    default:
        return picture->color_range == AVCOL_RANGE_JPEG;
    }
}

// Frame plane over one of FFmpeg's reference-counted picture buffers; the buffer
// reference is dropped when the last frame sharing the plane goes, on whichever
// thread that happens (av_buffer_unref is thread-safe).
MemoryVideoBuffer* wrapPlane(const AVFrame* picture, int plane, int rows)
{
    AVBufferRef* owner = av_frame_get_plane_buffer(const_cast<AVFrame*>(picture), plane);
    if (!owner || picture->linesize[plane] <= 0)
        return nullptr;
    const qint64 available = owner->data + owner->size - picture->data[plane];
    const qint64 wanted = qint64(picture->linesize[plane]) * rows;
    if (available <= 0)
        return nullptr;
    AVBufferRef* ref = av_buffer_ref(owner);
    if (!ref)
        return nullptr;
    const int size = int(std::min(available, wanted));
    auto* buffer = new MemoryVideoBuffer(picture->data[plane], size, picture->linesize[plane], [ref](unsigned char*) {
        AVBufferRef* r = ref;
        av_buffer_unref(&r);
    });
    // The decoder keeps this picture as a reference: frames detach before writing.
    buffer->setReadOnly(true);
    return buffer;
}

bool wrapPicture(const AVFrame* picture, VideoFrame& frame)
{
    const int chromaRows = (picture->height + 1) / 2;
    MemoryVideoBuffer* y = wrapPlane(picture, 0, picture->height);
    MemoryVideoBuffer* u = y ? wrapPlane(picture, 1, chromaRows) : nullptr;
    MemoryVideoBuffer* v = u ? wrapPlane(picture, 2, chromaRows) : nullptr;
    if (!v) {
        delete y;
        delete u;
        return false;
    }
    frame = VideoFrame(y, u, v, QSize(picture->width, picture->height), VideoFrame::Format_YUV420P);
    return true;
}

// Output planes come from pools that live as long as their last buffer: a 1080p frame
// is over 5 MB, and fresh allocations of that size each picture go back and forth to
// the system (page faults cost more than the copy). The geometry is that of a frame
// allocated with defaultBufferProperties: Y and A pitch w, chroma pitch (w + 1) / 2,
// alignment at least 8, alpha plane present (its contents are undefined there too).
// Each buffer holds sws::kOutputSlack bytes after its plane, so that swscale converts
// straight into it (see sws_scale.h) instead of through a copy.
class PlanePools {
public:
    ~PlanePools() { reset(); }

    // `pooled` tells whether the planes came from the pools (and so have the slack).
    VideoFrame allocate(int w, int h, bool& pooled)
    {
        pooled = false;
        const int chromaPitch = (w + 1) / 2;
        const qint64 lumaBytes = qint64(w) * h;
        const qint64 chromaBytes = qint64(chromaPitch) * ((h + 1) / 2);
        if (lumaBytes > INT_MAX - sws::kOutputSlack || lumaBytes <= 0)
            return VideoFrame(w, h, VideoFrame::Format_YUV420P, defaultBufferProperties);
        if (w != width_ || h != height_) {
            reset();
            luma_ = av_buffer_pool_init(size_t(lumaBytes + sws::kOutputSlack), av_buffer_alloc);
            chroma_ = av_buffer_pool_init(size_t(chromaBytes + sws::kOutputSlack), av_buffer_alloc);
            width_ = w;
            height_ = h;
        }
        const QSize lumaSize(w, h);
        const QSize chromaSize = VideoFrame::planeUVSize(lumaSize, VideoFrame::Format_YUV420P);
        QAbstractVideoBuffer* planes[4] = {plane(luma_, int(lumaBytes), w), plane(chroma_, int(chromaBytes), chromaPitch),
                                           plane(chroma_, int(chromaBytes), chromaPitch),
                                           plane(luma_, int(lumaBytes), w)};
        if (!planes[0] || !planes[1] || !planes[2] || !planes[3]) {
            for (QAbstractVideoBuffer* b : planes)
                delete b;
            return VideoFrame(w, h, VideoFrame::Format_YUV420P, defaultBufferProperties);
        }
        pooled = true;
        return VideoFrame(QVideoFrame(planes[0], lumaSize, QVideoFrame::Format_Y8),
                          QVideoFrame(planes[1], chromaSize, QVideoFrame::Format_Y8),
                          QVideoFrame(planes[2], chromaSize, QVideoFrame::Format_Y8),
                          QVideoFrame(planes[3], lumaSize, QVideoFrame::Format_Y8), VideoFrame::Format_YUV420P);
    }

private:
    // The buffer goes back to its pool when the last frame sharing the plane goes,
    // on whichever thread that happens (pools are thread-safe).
    static MemoryVideoBuffer* plane(AVBufferPool* pool, int size, int pitch)
    {
        AVBufferRef* ref = pool ? av_buffer_pool_get(pool) : nullptr;
        if (!ref)
            return nullptr;
        return new MemoryVideoBuffer(ref->data, size, pitch, [ref](unsigned char*) {
            AVBufferRef* r = ref;
            av_buffer_unref(&r);
        });
    }

    // Buffers still held by frames keep their pool alive until they come back.
    void reset()
    {
        av_buffer_pool_uninit(&luma_);
        av_buffer_pool_uninit(&chroma_);
        width_ = height_ = 0;
    }

    AVBufferPool* luma_ = nullptr;
    AVBufferPool* chroma_ = nullptr;
    int width_ = 0;
    int height_ = 0;
};

void copyPicture(const AVFrame* picture, VideoFrame& frame, PlanePools& pools)
{
    const int w = picture->width, h = picture->height;
    bool pooled = false;
    frame = pools.allocate(w, h, pooled);
    if (!frame.mapIfNotMapped(QAbstractVideoBuffer::ReadWrite))
        return;
    av_image_copy_plane(frame.bitsY(), int(frame.bytesPerLineY()), picture->data[0], picture->linesize[0], w, h);
    av_image_copy_plane(frame.bitsU(), int(frame.bytesPerLineU()), picture->data[1], picture->linesize[1],
                        (w + 1) / 2, (h + 1) / 2);
    av_image_copy_plane(frame.bitsV(), int(frame.bytesPerLineV()), picture->data[2], picture->linesize[2],
                        (w + 1) / 2, (h + 1) / 2);
    frame.unmap();
}

}  // namespace

struct FFmpegModule::State {
    AVCodecContext* codec = nullptr;
    sws::Scaler scaler;
    bool ok = false;
    AVFrame* picture = nullptr;  // the picture being handed out
    PacketFeeder* feeder = nullptr;
    PlanePools pools;

    // Converts `picture` into `frame` and releases it; false when the frame could not be allocated.
    bool handOut(VideoFrame& frame);
    void convert(VideoFrame& frame);
};

FFmpegModule::FFmpegModule(const DecodeContext& context) : d(new State)
{
    applyFFmpegLogMode();
    const AVCodecID id = codecIdOf(context.format);
    // A codec the linked FFmpeg lacks, or one that will not open, fails this decoder only
    // (decode returns false, Decoder::init refuses it): no client input may stop the host.
    const AVCodec* codec = isCodecMissingForTesting(context.format) ? nullptr : avcodec_find_decoder(id);
    if (!codec) {
        oprint(LogStream::StandardError, "could not find codec with id:%d\n", int(id));
        return;
    }
    d->codec = avcodec_alloc_context3(codec);
    d->picture = av_frame_alloc();
    if (d->codec) {
        d->codec->max_pixels = ::AbstractDecoder::kMaxPixels;
        PacketFeeder::configure(d->codec);
#ifdef FUZZING_BUILD_MODE_UNSAFE_FOR_PRODUCTION
        d->codec->thread_count = 1;  // fuzz builds: findings and timings belong to one thread
#endif
    }
    if (!d->codec || !d->picture || avcodec_open2(d->codec, codec, nullptr) < 0) {
        oprint(LogStream::StandardError, "could not open codec\n");
        return;
    }
    d->codec->get_format = defaultGetFormat;
    d->feeder = new PacketFeeder(d->codec);
    d->ok = true;
}

bool FFmpegModule::isOpen() const { return d->ok; }

FFmpegModule::~FFmpegModule()
{
    delete d->feeder;
    avcodec_free_context(&d->codec);
    av_frame_free(&d->picture);
    delete d;
}

bool FFmpegModule::decode(QByteArray& packet, VideoFrame& frame)
{
    if (!d->ok)
        return false;
    const int size = packet.size();
    packet.append(kInputPadding, '\0');
    qint64 tag = 0;
    return decodePayload(reinterpret_cast<const unsigned char*>(packet.constData()), size, 0, frame, &tag) ==
           PayloadResult::Picture;
}

FFmpegModule::PayloadResult FFmpegModule::decodePayload(const unsigned char* data, int size, qint64 tag,
                                                        VideoFrame& frame, qint64* pictureTag)
{
    if (!d->ok)
        return PayloadResult::Rejected;
    const PacketFeeder::Result result = d->feeder->feed(data, size, tag);
    if (result == PacketFeeder::Result::Rejected) {
        if (ffmpegCategory.isTraceEnabled())
            olog(ffmpegCategory, LOG_TRACE, "orvo::FFmpegModule::decode", "payload of %d bytes rejected", size);
        return PayloadResult::Rejected;
    }
    if (result == PacketFeeder::Result::Accepted || !d->feeder->takePicture(d->picture, pictureTag))
        return PayloadResult::Accepted;
    return d->handOut(frame) ? PayloadResult::Picture : PayloadResult::Rejected;
}

bool FFmpegModule::drain(VideoFrame& frame, qint64* pictureTag)
{
    if (!d->ok)
        return false;
    // A picture whose frame cannot be allocated is skipped, not the end of the drain.
    while (d->feeder->drain(d->picture, pictureTag)) {
        if (d->handOut(frame))
            return true;
    }
    return false;
}

bool FFmpegModule::State::handOut(VideoFrame& frame)
{
    // The picture is lost when its frame cannot be allocated; no exception leaves the library.
    bool converted = true;
    try {
        convert(frame);
    } catch (const std::bad_alloc&) {
        converted = false;
    }
    av_frame_unref(picture);
    return converted;
}

void FFmpegModule::State::convert(VideoFrame& frame)
{
    const AVFrame* pic = picture;
    const int w = pic->width, h = pic->height;
    if (w <= 0 || h <= 0)
        return;
    const bool full = isFullRange(pic);
    if (pic->format == AV_PIX_FMT_YUV420P && !full) {
        // Already what frames hold: no conversion needed.
        if (DecoderPreferences::instance()->isZeroCopyDecoding() && wrapPicture(pic, frame))
            return;
        copyPicture(pic, frame, pools);
        return;
    }

    bool pooled = false;
    frame = pools.allocate(w, h, pooled);
    if (!frame.mapIfNotMapped(QAbstractVideoBuffer::ReadWrite))
        return;
    const AVPixelFormat format = AVPixelFormat(pic->format);
    if (SwsContext* context =
            scaler.get({w, h, format, full, w, h, AV_PIX_FMT_YUV420P, SWS_BILINEAR})) {
        const int chromaStride = int(std::max(frame.bytesPerLineU(), frame.bytesPerLineV()));
        uint8_t* const dst[4] = {frame.bitsY(), frame.bitsU(), frame.bitsV(), nullptr};
        const int dstStride[4] = {int(frame.bytesPerLineY()), chromaStride, chromaStride, 0};
        // Pooled planes are written in place; a frame allocated otherwise has no known slack.
        sws::Planes source = sws::Planes::of(format, w, h, pic->data, pic->linesize);
        source.overreadable = true;
        sws::scale(context, source, sws::Planes::of(AV_PIX_FMT_YUV420P, w, h, dst, dstStride),
                   pooled ? sws::Room::Slack : sws::Room::Exact);
    }
    frame.unmap();
}

namespace {

// The frame's Y, U and V planes as swscale sees them, or no planes when the frame is not
// mapped or a plane holds less than its geometry claims (foreign buffers can).
sws::Planes framePlanes(const VideoFrame& frame)
{
    VideoFrameQt* body = frame.body();
    if (!body)
        return sws::Planes();
    const sws::PlanarLayout layout = sws::planarLayout(frame.pixelFormat());
    const int w = frame.width(), h = frame.height();
    const int cw = sws::chromaExtent(w, layout.dx), ch = sws::chromaExtent(h, layout.dy);
    const PlaneView y = viewY(*body), u = viewU(*body), v = viewV(*body);
    if (!y.holds(w, h) || !u.holds(cw, ch) || !v.holds(cw, ch))
        return sws::Planes();
    const uint8_t* const data[4] = {y.data, u.data, v.data, nullptr};
    const int stride[4] = {int(y.stride), int(u.stride), int(v.stride), 0};
    return sws::Planes::of(layout.format, w, h, data, stride);
}

sws::Planes imagePlanes(const QImage& image, AVPixelFormat format)
{
    const uint8_t* const data[4] = {image.constBits(), nullptr, nullptr, nullptr};
    const int stride[4] = {int(image.bytesPerLine()), 0, 0, 0};
    return sws::Planes::of(format, image.width(), image.height(), data, stride);
}

}  // namespace

bool FFmpegModule::qimageToVideoFrame(const QImage& image, VideoFrame& frame)
{
    if (image.isNull() || image.format() == QImage::Format_Invalid)
        return false;
    if (frame.mapMode() == QAbstractVideoBuffer::ReadOnly || !frame.areSeparatePlanes())
        return false;
    // Any other layout is read as 24-bit RGB, so it is brought into that layout first.
    QImage source = image;
    AVPixelFormat sourceFormat = sws::fromQImageFormat(image.format());
    if (sourceFormat == AV_PIX_FMT_NONE) {
        source = image.convertToFormat(QImage::Format_RGB888);
        sourceFormat = AV_PIX_FMT_RGB24;
    }
    const bool wasMapped = frame.isMapped();
    if (!wasMapped && !frame.map(QAbstractVideoBuffer::WriteOnly))
        return false;
    bool ok = false;
    const sws::Planes target = framePlanes(frame);
    sws::Scaler scaler;
    SwsContext* s = target.isNull() ? nullptr
                                    : scaler.get({source.width(), source.height(), sourceFormat, false, frame.width(),
                                                  frame.height(), sws::planarLayout(frame.pixelFormat()).format, 0});
    // The frame's planes belong to the caller: swscale writes exactly their pixels.
    if (s)
        ok = sws::scale(s, imagePlanes(source, sourceFormat), target, sws::Room::Exact);
    if (!wasMapped)
        frame.unmap();
    return ok;
}

bool FFmpegModule::videoFrameToQImage(const VideoFrame& frame, QImage& image)
{
    if (!frame.isValid() || !frame.isMapped() || !frame.areSeparatePlanes())
        return false;
    if (image.isNull() || image.format() == QImage::Format_Invalid)
        return false;
    if (!frame.bitsY() || !frame.bitsU() || !frame.bitsV())
        return false;
    // Written as 24-bit RGB into any other layout, through a converted copy.
    AVPixelFormat targetFormat = sws::fromQImageFormat(image.format());
    if (image.format() == QImage::Format_RGB32)
        targetFormat = AV_PIX_FMT_BGRA;  // Qt wants 0xFF in the unused byte
    const bool direct = targetFormat != AV_PIX_FMT_NONE;
    QImage converted;
    if (!direct) {
        converted = QImage(image.size(), QImage::Format_RGB888);
        targetFormat = AV_PIX_FMT_RGB24;
    }
    QImage& target = direct ? image : converted;
    if (target.isNull())
        return false;
    const sws::Planes source = framePlanes(frame);
    uint8_t* const dst[4] = {target.bits(), nullptr, nullptr, nullptr};
    const int dstStride[4] = {int(target.bytesPerLine()), 0, 0, 0};
    const sws::Planes destination = sws::Planes::of(targetFormat, target.width(), target.height(), dst, dstStride);
    if (source.isNull() || destination.isNull())
        return false;
    sws::Scaler scaler;
    SwsContext* s = scaler.get({frame.width(), frame.height(), sws::planarLayout(frame.pixelFormat()).format, false,
                                target.width(), target.height(), targetFormat, 0});
    const bool ok = sws::scale(s, source, destination, sws::Room::Exact);
    if (!ok)
        return false;
    if (!direct)
        image = converted.convertToFormat(image.format());
    return true;
}

}  // namespace orvo
