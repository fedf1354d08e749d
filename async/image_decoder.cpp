#include "async/image_decoder.h"

#include "decoders/exception_error_code.h"
#include "orvo/log.h"

#include <QThread>
#include <QtConcurrent/QtConcurrentRun>
#include <cstdio>

namespace orvo {

namespace {
LogCategory jobLog("orvo.async.job");

unsigned long long threadIdNumber()
{
    return static_cast<unsigned long long>(reinterpret_cast<quintptr>(QThread::currentThreadId()));
}
}  // namespace

QList<DecoderError> takeEndedAsErrors(Decoder& decoder)
{
    QList<DecoderError> errors;
    for (const Decoder::EndedImage& ended : decoder.takeImagesWithoutPicture())
        errors.append(DecoderError(1, ended.image.id(), ended.reason));
    return errors;
}

ImageDecoder::~ImageDecoder() = default;

ImageOutcome ImageDecoder::takeOutcome()
{
    // The job's last write publishes what it made: read it first.
    const quint32 code = errorCode_.load(std::memory_order_acquire);
    ImageOutcome outcome;
    std::swap(outcome, outcome_);
    if (!result_.isNull())
        outcome.frames.prepend(result_);
    result_ = VideoFrame();
    outcome.errorCode = code;
    return outcome;
}

QFuture<VideoFrame> ImageDecoder::startJob(const Image& image, QSharedPointer<AbstractDecoder> keep, int scale,
                                           JobRelay* relay, quint64 serial, quint64 epoch)
{
    // Built before the release below, so the job's writes into it (its result) are ordered.
    auto* task = new QtConcurrent::StoredMemberFunctionPointerCall0<VideoFrame, ImageDecoder>(&ImageDecoder::runJob,
                                                                                               this);
    jobImage_ = image;
    jobKeep_ = std::move(keep);
    jobScale_ = scale;
    jobRelay_ = relay;
    jobEpoch_ = epoch;
    jobSerial_ = serial;
    handoff_.fetch_add(1, std::memory_order_release);
    return task->start();
}

QFuture<VideoFrame> ImageDecoder::startDrainJob(QSharedPointer<AbstractDecoder> keep)
{
    auto* task = new QtConcurrent::StoredMemberFunctionPointerCall0<VideoFrame, ImageDecoder>(
        &ImageDecoder::runDrainJob, this);
    jobKeep_ = std::move(keep);
    handoff_.fetch_add(1, std::memory_order_release);
    return task->start();
}

VideoFrame ImageDecoder::runDrainJob()
{
    (void)handoff_.load(std::memory_order_acquire);
    return drainAll(std::move(jobKeep_));
}

VideoFrame ImageDecoder::runJob()
{
    (void)handoff_.load(std::memory_order_acquire);
    Image image = std::move(jobImage_);
    jobImage_ = Image();
    const QSharedPointer<AbstractDecoder> keep = std::move(jobKeep_);
    jobKeep_.reset();
    for (;;) {
        jobImageId_ = image.id();
        VideoFrame frame = decode(image, keep, nullptr, jobScale_);
        // The next image is taken before this one's result is relayed, so that the owner
        // sees it running as soon as it handles the result.
        Image next;
        quint64 nextSerial = 0;
        if (!jobRelay_ || !jobRelay_->takeNext(jobEpoch_, next, nextSerial, jobScale_))
            return frame;
        jobRelay_->relay(jobEpoch_, jobSerial_, image.id(), takeOutcome());
        image = std::move(next);
        jobSerial_ = nextSerial;
    }
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
    outcome_ = ImageOutcome();
    try {
        r = decodeInto(image, frame, scale);
        code = (r || pending_) ? 0 : 1;
    } catch (...) {
        code = currentExceptionErrorCode();
        outcome_.reason.clear();
        r = false;
        if (code == kErrorOutOfMemory)
            oprint(LogStream::StandardOutput,
                   "std::bad_alloc caught, decoding failed for channel=%u frame timestamp=%lld probably due to "
                   "insuficient memory.\n",
                   unsigned(image.channel()), static_cast<long long>(image.time()));
        else
            oprint(LogStream::StandardOutput,
                   "unknown exception caught, decoding failed for channel =%u frame timestamp=%lld probably due "
                   "to insuficient memory.\n",
                   unsigned(image.channel()), static_cast<long long>(image.time()));
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
    pending_ = false;
    bool r = false;
    outcome_ = ImageOutcome();
    if (image.payloadSize() == 0) {
        oprint(LogStream::StandardOutput, "ImageDecoder::decode, payload size=0\n");
        outcome_.reason = QStringLiteral("empty payload");
    } else {
        const ImageResult result = decodeImage(image, frame, scale);
        r = result == ImageResult::Picture;
        pending_ = result == ImageResult::Pending;
        if (result == ImageResult::Failed)
            outcome_.reason = failureReason();
        VideoFrame more;
        while (takePicture(more)) {
            outcome_.frames.append(more);
            more = VideoFrame();
        }
        outcome_.ended = takeEndedAsErrors(*this);
    }
    if (!r) {
        if (image.isNull())
            oprint(LogStream::StandardOutput, "Image is null.\n");
        frame.setId(image.id());
        frame.attachImageData(image, image.payloadSize());
        frame.setStreamId(image.streamId());
        frame.setImage(image);
    }
    // A field of an interlaced picture: half the height (by the image the picture came from).
    auto scaleField = [](VideoFrame& f, const Image& source) {
        const quint8 type = source.type();
        if (type != 'a' && type != 'n' && type != 'p' && (source.flags() & 7) == 2)
            f.setScale(1, 2);
    };
    scaleField(frame, r ? frame.image() : image);
    for (VideoFrame& more : outcome_.frames)
        scaleField(more, more.image());
    return r;
}

VideoFrame ImageDecoder::drainAll(QSharedPointer<AbstractDecoder> keep)
{
    (void)handoff_.load(std::memory_order_acquire);
    workerThread_ = QThread::currentThread();
    quint32 code = 0;
    outcome_ = ImageOutcome();
    try {
        VideoFrame frame;
        while (drain(frame)) {
            outcome_.frames.append(frame);
            frame = VideoFrame();
        }
        outcome_.ended = takeEndedAsErrors(*this);
    } catch (...) {
        code = currentExceptionErrorCode();
    }
    result_ = VideoFrame();
    keep.reset();
    errorCode_.store(code, std::memory_order_release);
    return VideoFrame();
}

}  // namespace orvo
