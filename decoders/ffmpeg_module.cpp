#include "orvo/ffmpeg_module.h"

#include "decoders/ffmpeg_log.h"
#include "decoders/format_table.h"
#include "decoders/hardware_path.h"
#include "decoders/jpeg_header.h"
#include "decoders/key_picture.h"
#include "decoders/packet_feeder.h"
#include "orvo/decoder_preferences.h"
#include "orvo/log.h"

#include "backends/ffmpeg_decoding_loop.h"
#include "frames/nv12_planes.h"
#include "frames/plane_pool.h"
#include "frames/qimage_scale.h"
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
#include <deque>
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
    const formats::Format* row = formats::forInput(format);
    return row ? row->codecId : AV_CODEC_ID_NONE;
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

// Frame plane over one of FFmpeg's reference-counted picture buffers, which it keeps
// referenced while frames share it.
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
    MemoryVideoBuffer* buffer = planeInBuffer(ref, picture->data[plane], size, picture->linesize[plane]);
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

// A frame of the library's usual geometry for a w x h picture; throws when memory ran out.
VideoFrame allocateFrame(PlanePool& pools, int w, int h)
{
    VideoFrame frame = pools.allocate(PlaneLayout::standard(w, h));
    if (frame.isNull())
        throw std::bad_alloc();
    return frame;
}

void copyPicture(const AVFrame* picture, VideoFrame& frame, PlanePool& pools)
{
    const int w = picture->width, h = picture->height;
    frame = allocateFrame(pools, w, h);
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
    const AVCodec* codec = nullptr;
    std::unique_ptr<FFmpegDecodingLoop> loop;
    AVFrame* picture = av_frame_alloc();  // the picture being handed out
    sws::Scaler scaler;
    bool ok = false;
    PacketFeeder* feeder = nullptr;
    PacketFeeder::DamagePolicy policy = PacketFeeder::DamagePolicy::Show;
    PlanePool pools;
    QSize maxSize;
    int lowres = 0;
    std::unique_ptr<KeyPictures> keys;
    QByteArray withHeaders;  // the payload to decode instead, when fitLowres set it
    // Pictures and answers the decoder replaced at another factor still owed, handed out first.
    std::deque<std::pair<AVFrame*, qint64>> carried;
    std::deque<std::pair<qint64, QString>> carriedEnded;
    HardwareRequest request;  // read at creation
    HardwareEngine engine;    // the device, until the engine's decoder holds it
    formats::Engine engineUse = formats::Engine::None;  // the format table's engine column
    bool hardwareStream = false;  // opened on the engine (reduced resolution does not apply)
    // On software because the device did not open or was lost: the engine is tried again at
    // the stream's key pictures (the device registry keeps that to once per delay).
    bool retryEngine = false;
    DecodingPath path;
    // Required hardware decoding that the stream cannot have: why (every payload is refused).
    QString hardwareFailure;

    ~State()
    {
        for (auto& held : carried)
            av_frame_free(&held.first);
        av_frame_free(&picture);
    }

    // Converts `picture` into `frame` and releases it; false when the frame could not be allocated.
    bool handOut(VideoFrame& frame);
    void convert(VideoFrame& frame);
    // Brings full-range planes of `frame` to the studio range, as for a software picture.
    // `overreadable`: the source is one of FFmpeg's padded pictures (see sws::Planes).
    void toStudioRange(const uint8_t* const data[4], const int linesize[4], AVPixelFormat format, int w, int h,
                       bool overreadable, VideoFrame& frame);
    // Follows the engine after each call: a stream that left it goes on in software (or,
    // when hardware decoding is required, fails from now on).
    void followEngine();
    bool onEngine() const { return loop && loop->hardware() && loop->hardware()->onEngine(); }
    // Before a key picture of a stream waiting for its device: back to the engine when it opens.
    void returnToEngine();
    // A decoder (and feeder) decoding at 1/2^factor of the size; false (nothing changed) when
    // it cannot be opened.
    bool open(int factor);
    // The factor follows the declared picture size at key pictures, where a decoder opened
    // afresh can take over: every Motion JPEG picture, MxPEG I-frames, MPEG-4 I-VOPs once a VOL
    // was seen (withHeaders then holds the payload behind the headers the new decoder lacks).
    void fitLowres(const unsigned char* data, int size);
    // open(factor) after taking every picture and answer the current decoder still owes.
    void reopen(int factor);
    bool takeCarried(qint64* tag);
};

bool FFmpegModule::State::open(int factor)
{
    FFmpegDecodingLoop::Options options;
    options.lowres = factor;
    if (hardwareStream) {
        if (!engine.device)
            return false;  // the engine's decoder is not opened twice
        options.hardware = engine.device;
        options.hardwareFormat = engine.format;
        options.hardwareRequired = request.mode == HardwareDecoding::Required;
        options.lowres = 0;  // engines decode at full size; the dispatcher scales
    }
    std::unique_ptr<FFmpegDecodingLoop> opened = FFmpegDecodingLoop::open(codec, options);
    if (!opened)
        return false;
    if (hardwareStream)
        engine.device.reset();  // the decoder holds it: the device goes with its last decoder
    else
        opened->context()->get_format = defaultGetFormat;
    delete feeder;  // before the codec it feeds
    loop = std::move(opened);
    feeder = new PacketFeeder(*loop, policy);
    if (request.mode == HardwareDecoding::Auto)
        feeder->setBeforeKeyUnit([this] {
            if (retryEngine)
                returnToEngine();
        });
    lowres = factor;
    return true;
}

void FFmpegModule::State::fitLowres(const unsigned char* data, int size)
{
    // Never assumed: only where the linked decoder offers reduced resolution; engines decode
    // at full size.
    if (codec->max_lowres <= 0 || hardwareStream || (maxSize.isEmpty() && lowres == 0 && !keys->remembers()))
        return;
    int w = 0, h = 0;
    QByteArray missing;
    const bool key = keys->at(data, size, &w, &h, &missing);
    if (maxSize.isEmpty() && lowres == 0)
        return;
    int factor = 0;
    if (key) {
        if (!maxSize.isEmpty())
            factor = lowresFactorFor(w, h, maxSize.width(), maxSize.height(), codec->max_lowres);
    } else if (!(maxSize.isEmpty() && independentPictures(codec->id))) {
        // Pictures that refer to earlier ones keep the factor of their references; an
        // unreadable header keeps it too (FFmpeg judges the payload itself).
        return;
    }
    if (factor == lowres)
        return;
    reopen(factor);
    // An I-VOP without its headers: the new decoder gets it behind those the stream sent last.
    if (!missing.isEmpty() && lowres == factor) {
        withHeaders = missing;
        withHeaders.append(reinterpret_cast<const char*>(data), size);
    }
}

void FFmpegModule::State::reopen(int factor)
{
    // Pictures the decoder still holds (reordering) and the answers for its payloads come
    // out before the new decoder's: every payload is answered once.
    for (;;) {
        AVFrame* held = av_frame_alloc();
        qint64 tag = 0;
        if (!held)
            break;  // out of memory: what the decoder holds is answered as ended below
        if (!feeder->drain(held, &tag)) {
            av_frame_free(&held);
            break;
        }
        carried.emplace_back(held, tag);
    }
    qint64 tag = 0;
    QString reason;
    while (feeder->takeEnded(&tag, &reason))
        carriedEnded.emplace_back(tag, reason);
    // On failure the drained decoder stays, ready for the key picture at its old factor.
    open(factor);
}

bool FFmpegModule::State::takeCarried(qint64* tag)
{
    if (carried.empty())
        return false;
    AVFrame* held = carried.front().first;
    *tag = carried.front().second;
    carried.pop_front();
    av_frame_unref(picture);
    av_frame_move_ref(picture, held);
    av_frame_free(&held);
    return true;
}

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
    d->codec = codec;
    d->keys = std::make_unique<KeyPictures>(codec->id);
    const bool wait = DecoderPreferences::instance()->damagedPictures() == DamagedPictures::WaitForKeyFrame;
    d->policy = wait ? PacketFeeder::DamagePolicy::WaitForKeyFrame : PacketFeeder::DamagePolicy::Show;
    d->request = HardwareRequest::fromPreferences();
    d->path = softwarePath(d->request, std::string());
    if (d->request.mode != HardwareDecoding::Off) {
        const formats::Format* row = formats::forInput(context.format);
        d->engineUse = row ? row->engine : formats::Engine::None;
        d->engine = findEngine(d->request, codec, d->engineUse);
        const QString type = QString::fromStdString(d->request.type);
        const QString why = QString::fromStdString(d->engine.error);
        if (d->engine.device) {
            d->path = hardwarePath(d->request);
            d->hardwareStream = true;
        } else if (d->request.mode == HardwareDecoding::Required) {
            d->hardwareFailure = QStringLiteral("hardware decoding (%1) required, but %2").arg(type, why);
            logHardwareCause(d->hardwareFailure);
            d->path = DecodingPath();
            return;
        } else {
            d->path = softwarePath(d->request, d->engine.error);
            d->retryEngine = d->engine.deviceFailed;
            logHardwareCause(QStringLiteral("decoding in software, not on the %1 engine: %2").arg(type, why));
        }
    }
    if (!d->picture || !d->open(0)) {
        oprint(LogStream::StandardError, "could not open codec\n");
        return;
    }
    d->ok = true;
}

bool FFmpegModule::isOpen() const { return d->ok; }

void FFmpegModule::State::returnToEngine()
{
    HardwareEngine found = findEngine(request, codec, engineUse);
    if (!found.device)
        return;  // still failing, or waiting out its delay: no driver call
    FFmpegDecodingLoop::Options options;
    options.hardware = found.device;
    options.hardwareFormat = found.format;
    std::unique_ptr<FFmpegDecodingLoop> hardware = FFmpegDecodingLoop::open(codec, options);
    if (!hardware)
        return;
    const QString type = QString::fromStdString(request.type);
    // The software decoder's held pictures come out first; the key picture starts the engine's.
    const QString reason = QStringLiteral("its decoder was replaced when the stream went back to the %1 engine").arg(type);
    feeder->drainLoop(reason);
    feeder->switchLoop(*hardware, reason);
    loop = std::move(hardware);
    hardwareStream = true;
    retryEngine = false;
    lowres = 0;
    path = hardwarePath(request);
    logHardwareCause(QStringLiteral("a stream went back to the %1 engine").arg(type));
}

QString FFmpegModule::openFailure() const
{
    if (d->ok)
        return QString();
    return d->hardwareFailure.isEmpty() ? QStringLiteral("the codec could not be opened") : d->hardwareFailure;
}

DecodingPath FFmpegModule::decodingPath() const { return d->path; }

void FFmpegModule::State::followEngine()
{
    hw::Session* session = loop ? loop->hardware() : nullptr;
    if (!session || path.engine != DecodingPath::Engine::Hardware)
        return;
    session->setOutputBound(maxSize);  // the engine reduces pictures before their download
    const std::string scaling = session->takeScalingIssue();
    if (!scaling.empty())
        logHardwareCause(QStringLiteral("pictures for a smaller output size are downloaded in full and fitted in "
                                        "software: %1").arg(QString::fromStdString(scaling)));
    session->checkDevice();  // another stream may have found the device lost
    if (session->onEngine())
        return;
    const QString type = QString::fromStdString(request.type);
    const QString why = QString::fromStdString(session->leaveReason());
    if (request.mode == HardwareDecoding::Required) {
        hardwareFailure = QStringLiteral("hardware decoding (%1) required, but %2").arg(type, why);
        logHardwareCause(hardwareFailure);
        feeder->abandonWaiting(hardwareFailure);
        path = DecodingPath();
        return;
    }
    path = softwarePath(request, session->leaveReason());
    logHardwareCause(QStringLiteral("a stream left the %1 engine for software: %2").arg(type, why));
    retryEngine = session->device().isLost();
    if (!session->needsNewDecoder())
        return;  // FFmpeg goes on in software in the same decoder
    // The engine's decoder is of no further use: a software one takes the stream on from its
    // next unit (the next key picture is the first it can show). The device reference goes
    // with the old decoder.
    hardwareStream = false;
    FFmpegDecodingLoop::Options options;
    std::unique_ptr<FFmpegDecodingLoop> software = FFmpegDecodingLoop::open(codec, options);
    if (!software) {
        hardwareFailure = QStringLiteral("the software decoder could not be opened after the %1 engine failed: %2")
                              .arg(type, why);
        feeder->abandonWaiting(hardwareFailure);
        return;
    }
    software->context()->get_format = defaultGetFormat;
    feeder->switchLoop(*software, QStringLiteral("lost when the %1 engine failed (%2); decoding goes on in software "
                                                 "from the next key picture")
                                      .arg(type, why));
    loop = std::move(software);
    lowres = 0;
}

FFmpegModule::~FFmpegModule()
{
    delete d->feeder;  // before the codec it feeds
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
                                                        VideoFrame& frame, qint64* pictureTag, bool endsUnit)
{
    if (!d->ok)
        return PayloadResult::Rejected;
    d->withHeaders.clear();
    d->followEngine();
    if (!d->hardwareFailure.isEmpty())
        return PayloadResult::Rejected;
    d->fitLowres(data, size);
    if (!d->withHeaders.isEmpty()) {
        data = reinterpret_cast<const unsigned char*>(d->withHeaders.constData());
        size = d->withHeaders.size();
    }
    const PacketFeeder::Result result = d->feeder->feed(data, size, tag, endsUnit);
    d->followEngine();
    if (result == PacketFeeder::Result::Rejected) {
        if (ffmpegCategory.isTraceEnabled())
            olog(ffmpegCategory, LOG_TRACE, "orvo::FFmpegModule::decode", "payload of %d bytes rejected", size);
        return PayloadResult::Rejected;
    }
    return nextPicture(frame, pictureTag) ? PayloadResult::Picture : PayloadResult::Accepted;
}

bool FFmpegModule::nextPicture(VideoFrame& frame, qint64* pictureTag)
{
    if (!d->ok)
        return false;
    // A picture whose frame cannot be allocated is skipped.
    while (d->takeCarried(pictureTag) || d->feeder->takePicture(d->picture, pictureTag)) {
        if (d->handOut(frame))
            return true;
    }
    return false;
}

void FFmpegModule::setMaxOutputSize(const QSize& size) { d->maxSize = size; }

bool FFmpegModule::takeEnded(qint64* tag, QString* reason)
{
    if (!d->ok)
        return false;
    if (!d->carriedEnded.empty()) {
        *tag = d->carriedEnded.front().first;
        *reason = d->carriedEnded.front().second;
        d->carriedEnded.pop_front();
        return true;
    }
    return d->feeder->takeEnded(tag, reason);
}

QString FFmpegModule::rejectReason() const
{
    if (!d->hardwareFailure.isEmpty())
        return d->hardwareFailure;
    return d->ok ? d->feeder->rejectReason() : QStringLiteral("the codec could not be opened");
}

bool FFmpegModule::drain(VideoFrame& frame, qint64* pictureTag)
{
    if (!d->ok)
        return false;
    // A picture whose frame cannot be allocated is skipped, not the end of the drain.
    bool got = false;
    while (!got && (d->takeCarried(pictureTag) || d->feeder->drain(d->picture, pictureTag)))
        got = d->handOut(frame);
    d->followEngine();
    return got;
}

bool FFmpegModule::State::handOut(VideoFrame& frame)
{
    // The picture is lost when its frame cannot be allocated; no exception leaves the library.
    bool converted = true;
    try {
        convert(frame);
        // FFmpeg concealed errors in it, or it predicts from such a picture.
        if (!frame.isNull())
            frame.setDamaged(picture->decode_error_flags != 0 || (picture->flags & AV_FRAME_FLAG_CORRUPT));
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
    if (pic->format == AV_PIX_FMT_NV12) {
        // A picture downloaded from the engine: the same planes as the software picture.
        frame = allocateFrame(pools, w, h);
        if (!frame.mapIfNotMapped(QAbstractVideoBuffer::ReadWrite))
            return;
        deinterleaveNv12(pic->data[0], pic->linesize[0], pic->data[1], pic->linesize[1], w, h, frame.bitsY(),
                         int(frame.bytesPerLineY()), frame.bitsU(), int(frame.bytesPerLineU()), frame.bitsV(),
                         int(frame.bytesPerLineV()));
        frame.unmap();
        if (full) {
            // Full range: the conversion a software yuvj420p picture gets, from these planes.
            VideoFrame planar = frame;
            if (!planar.mapIfNotMapped(QAbstractVideoBuffer::ReadOnly))
                return;
            const uint8_t* const data[4] = {planar.bitsY(), planar.bitsU(), planar.bitsV(), nullptr};
            const int linesize[4] = {int(planar.bytesPerLineY()), int(planar.bytesPerLineU()),
                                     int(planar.bytesPerLineV()), 0};
            toStudioRange(data, linesize, AV_PIX_FMT_YUVJ420P, w, h, false, frame);
            planar.unmap();
        }
        return;
    }
    if (pic->format == AV_PIX_FMT_YUV420P && !full) {
        // Already what frames hold: no conversion needed.
        if (DecoderPreferences::instance()->isZeroCopyDecoding() && wrapPicture(pic, frame))
            return;
        copyPicture(pic, frame, pools);
        return;
    }

    toStudioRange(pic->data, pic->linesize, AVPixelFormat(pic->format), w, h, true, frame);
}

void FFmpegModule::State::toStudioRange(const uint8_t* const data[4], const int linesize[4], AVPixelFormat format,
                                        int w, int h, bool overreadable, VideoFrame& frame)
{
    const bool full = isFullRange(picture) || format == AV_PIX_FMT_YUVJ420P;
    frame = allocateFrame(pools, w, h);
    if (!frame.mapIfNotMapped(QAbstractVideoBuffer::ReadWrite))
        return;
    if (SwsContext* context =
            scaler.get({w, h, format, full, w, h, AV_PIX_FMT_YUV420P, SWS_BILINEAR})) {
        const int chromaStride = int(std::max(frame.bytesPerLineU(), frame.bytesPerLineV()));
        uint8_t* const dst[4] = {frame.bitsY(), frame.bitsU(), frame.bitsV(), nullptr};
        const int dstStride[4] = {int(frame.bytesPerLineY()), chromaStride, chromaStride, 0};
        // Pooled planes have the slack to be written in place.
        sws::Planes source = sws::Planes::of(format, w, h, data, linesize);
        source.overreadable = overreadable;
        sws::scale(context, source, sws::Planes::of(AV_PIX_FMT_YUV420P, w, h, dst, dstStride), sws::Room::Slack);
    }
    frame.unmap();
}

bool FFmpegModule::qimageToVideoFrame(const QImage& image, VideoFrame& frame)
{
    return scaleImageIntoFrame(image, frame);
}

bool FFmpegModule::videoFrameToQImage(const VideoFrame& frame, QImage& image)
{
    return scaleFrameIntoImage(frame, image);
}

}  // namespace orvo
