#include "async/image_decoder.h"

#include "orvo/log.h"

#include <QThread>
#include <cstdio>
#include <new>

namespace orvo {

namespace {
LogCategory jobLog("orvo.async.job");

unsigned long long threadIdNumber()
{
    return static_cast<unsigned long long>(reinterpret_cast<quintptr>(QThread::currentThreadId()));
}
}  // namespace

ImageDecoder::~ImageDecoder() = default;

VideoFrame ImageDecoder::takeResult()
{
    VideoFrame frame = result_;
    result_ = VideoFrame();
    return frame;
}

VideoFrame ImageDecoder::decode(const Image& image, QSharedPointer<AbstractDecoder> keep, bool* ok, int scale)
{
    (void)handoff_.load(std::memory_order_acquire);
    if (jobLog.isTraceEnabled())
        olog(jobLog, LOG_TRACE, "orvo::ImageDecoder::decode", "Start decode image. Thread id: %llo.", threadIdNumber());
    workerThread_ = QThread::currentThread();
    // A job that dies half-way reports failure.
    errorCode_.store(1, std::memory_order_relaxed);

    VideoFrame frame;
    bool r = false;
    quint32 code = 1;
    try {
        r = decodeInto(image, frame, scale);
        code = r ? 0 : 1;
    } catch (const std::bad_alloc&) {
        oprint(LogStream::StandardOutput,
               "std::bad_alloc caught, decoding failed for channel=%u frame timestamp=%lld probably due to "
               "insuficient memory.\n",
               unsigned(image.channel()), static_cast<long long>(image.time()));
        r = false;
        code = 3;
    } catch (...) {
        oprint(LogStream::StandardOutput,
               "unknown exception caught, decoding failed for channel =%u frame timestamp=%lld probably due "
               "to insuficient memory.\n",
               unsigned(image.channel()), static_cast<long long>(image.time()));
        r = false;
        code = 4;
    }
    if (ok)
        *ok = r;
    if (r) {
        if (jobLog.isTraceEnabled())
            olog(jobLog, LOG_TRACE, "orvo::ImageDecoder::decode", "End decode image. Thread id: %llo.", threadIdNumber());
    } else {
        if (jobLog.isTraceEnabled())
            olog(jobLog, LOG_TRACE, "orvo::ImageDecoder::decode", "End decode image. Fail decoding. Thread id: %llo.",
                 threadIdNumber());
        frame = VideoFrame();
    }
    result_ = frame;
    keep.reset();
    // Last write of the job: publishes the result, the thread and the decoder state.
    errorCode_.store(code, std::memory_order_release);
    return frame;
}

bool ImageDecoder::decodeInto(const Image& image, VideoFrame& frame, int scale)
{
    olog(jobLog, LOG_DEBUG, "orvo::ImageDecoder::decode", "Decode.");
    const quint64 id = image.id();
    bool r = false;
    if (image.payloadSize() == 0) {
        oprint(LogStream::StandardOutput, "ImageDecoder::decode, payload size=0\n");
    } else if (init(image.type(), scale)) {
        r = Decoder::decode(image.payloadData(), int(image.payloadSize()), frame, image.iframe());
    }
    // A field of an interlaced picture: half the height.
    const quint8 type = image.type();
    if (type != 'a' && type != 'n' && type != 'p' && (image.flags() & 7) == 2)
        frame.setScale(1, 2);
    if (!r && image.isNull())
        oprint(LogStream::StandardOutput, "Image is null.\n");
    frame.setId(id);
    frame.attachImageData(image, image.payloadSize());
    frame.setStreamId(image.streamId());
    frame.setImage(image);
    return r;
}

}  // namespace orvo
