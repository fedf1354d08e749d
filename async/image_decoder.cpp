#include "async/image_decoder.h"

#include "decoders/exception_error_code.h"
#include "decoders/frame_stamp.h"
#include "orvo/log.h"

#include <QThread>
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
    ImageOutcome outcome;
    std::swap(outcome, outcome_);
    if (!result_.isNull())
        outcome.frames.prepend(result_);
    result_ = VideoFrame();
    outcome.errorCode = errorCode_;
    outcome.path = decodingPath();
    return outcome;
}

VideoFrame ImageDecoder::decode(const Image& image, QSharedPointer<AbstractDecoder> keep, bool* ok, int scale)
{
    if (jobLog.isTraceEnabled())
        olog(jobLog, LOG_TRACE, "orvo::ImageDecoder::decode", "Start decode image. Thread id: %llo.", threadIdNumber());
    workerThread_ = QThread::currentThread();
    // A job that dies half-way reports failure.
    errorCode_ = 1;

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
    errorCode_ = code;
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
        stampFrame(frame, image);
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

ImageOutcome ImageDecoder::drainAll()
{
    workerThread_ = QThread::currentThread();
    ImageOutcome outcome;
    try {
        VideoFrame frame;
        while (drain(frame)) {
            outcome.frames.append(frame);
            frame = VideoFrame();
        }
        outcome.ended = takeEndedAsErrors(*this);
    } catch (...) {
        outcome.errorCode = currentExceptionErrorCode();  // what was drained is delivered
    }
    outcome.path = decodingPath();
    return outcome;
}

}  // namespace orvo
