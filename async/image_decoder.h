#pragma once
// The decode job and the per-stream decoding slot of the pooled decoder.
#include "orvo/decoder.h"
#include "orvo/decoder_error.h"
#include "orvo/image.h"
#include "orvo/video_frame.h"

#include <QFuture>
#include <QList>
#include <QSharedPointer>
#include <atomic>

class QThread;

namespace orvo {

// What decoding one image came to.
struct ImageOutcome {
    QList<VideoFrame> frames;    // pictures that came out, in output order (maybe of earlier images)
    QList<DecoderError> ended;   // earlier images that will never give a picture (code 1, with reason)
    quint32 errorCode = 0;       // the image's own failure, as DecoderError's codes
    QString reason;              // why it failed
};

// The images `decoder` reports as ended without a picture, as the errors that answer them.
QList<DecoderError> takeEndedAsErrors(Decoder& decoder);

// How a job goes on with its stream's next image instead of returning to the owner thread
// (implemented by the pooled decoder, which outlives its jobs). Pool thread only.
class JobRelay {
public:
    // The next image to decode, when the job may take it: nothing cancelled the job
    // (`epoch` is the one the job started in), the backlog holds one and no other stream
    // waits for a pool thread.
    // `scale` receives the scale level the stream has now.
    virtual bool takeNext(quint64 epoch, Image& image, quint64& serial, int& scale) = 0;
    // Hands one finished image to the owner thread, in order: `frame` is its picture (null
    // when none came out), `errorCode` as DecoderError's.
    virtual void relay(quint64 epoch, quint64 serial, quint64 imageId, ImageOutcome outcome) = 0;

protected:
    ~JobRelay() = default;
};

// A Decoder that runs one image at a time as a pool job. One job per object at a time:
// the owner starts a job only after the previous one finished.
//
// Hand-off: the owner starts a job with startJob()/startDrainJob() and reads lastError()/
// takeResult()/workerThread() only after the job's future reports finished. The two
// atomics make that ordering explicit (Qt's own future locking is invisible to race
// checkers); everything else of the object is touched by one side at a time.
class ImageDecoder : public Decoder {
public:
    ImageDecoder() = default;
    virtual ~ImageDecoder();

    using Decoder::decode;

    // The job (runs on a pool thread). `keep` holds the format decoder that was current
    // when the job was started alive until the job ends; `ok` (may be null) receives the
    // success flag; `scale` is the JPEG 2000 / wavelet scale level. Never throws: a
    // failure yields a null frame and error code 1, memory exhaustion 3, anything else
    // thrown 4.
    VideoFrame decode(const Image& image, QSharedPointer<AbstractDecoder> keep, bool* ok, int scale);

    // The inner step, also run directly on the owner thread by the synchronous path:
    // decodes `image` into `frame`. A picture carries the identity of the image it came
    // from (an earlier one when the decoder held it back); without a picture the frame
    // is stamped with `image`'s identity. False without a picture; wasPending() then
    // tells whether the image was taken all the same (not an error). Further pictures of
    // the call and the earlier images that ended without one wait in takeOutcome().
    // May throw (std::bad_alloc from allocations).
    virtual bool decodeInto(const Image& image, VideoFrame& frame, int scale);
    bool wasPending() const { return pending_; }
    // The last image's (or drain's) outcome: `frame`'s picture first when there was one,
    // then the further pictures, the ended images and the image's own error code.
    ImageOutcome takeOutcome();

    // The drain job (runs on a pool thread): collects every picture the decoder still
    // holds, with its identity, and the images that ended without one, for takeOutcome();
    // returns a null frame.
    VideoFrame drainAll(QSharedPointer<AbstractDecoder> keep);

    // Starts one job on the global pool: decode(image, keep, nullptr, scale), then, while
    // `relay` (may be null) hands it further images, those in turn. The job's inputs
    // pass through this object, published with a release that follows the pool's job object
    // being built, so the job sees them and its own job object through atomics race checkers
    // can follow (Qt's own locking inside the pool is invisible to them).
    // `serial` and `epoch` identify the image and the job to the relay.
    QFuture<VideoFrame> startJob(const Image& image, QSharedPointer<AbstractDecoder> keep, int scale,
                                 JobRelay* relay = nullptr, quint64 serial = 0, quint64 epoch = 0);
    // Starts drainAll(keep) on the global pool, handed off the same way.
    QFuture<VideoFrame> startDrainJob(QSharedPointer<AbstractDecoder> keep);
    DecoderError lastError() const { return DecoderError(errorCode_.load(std::memory_order_acquire)); }
    void clearError() { errorCode_.store(0, std::memory_order_relaxed); }
    QThread* workerThread() const { return workerThread_; }
    // The last image of the finished job (read after it finished, as lastError()).
    quint64 jobSerial() const { return jobSerial_; }
    quint64 jobImageId() const { return jobImageId_; }

private:
    VideoFrame runJob();
    VideoFrame runDrainJob();

    std::atomic<unsigned> handoff_{0};
    std::atomic<quint32> errorCode_{0};
    QThread* workerThread_ = nullptr;
    VideoFrame result_;
    ImageOutcome outcome_;  // result_ aside
    Image jobImage_;
    QSharedPointer<AbstractDecoder> jobKeep_;
    int jobScale_ = 0;
    JobRelay* jobRelay_ = nullptr;
    quint64 jobEpoch_ = 0;
    quint64 jobSerial_ = 0;
    quint64 jobImageId_ = 0;
    bool pending_ = false;
};

// The state of one decoding slot of a ConcurrentDecoderImpl (owner thread only, apart
// from what the job writes through ImageDecoder).
class DecodingSlot : public ImageDecoder {
public:
    // A new slot is idle.
    bool cancelled = false;  // result of the current job is not to be emitted (or already was)
    bool emitted = true;     // the result of the current job was taken and emitted
    bool counted = false;    // the job is counted in the scheduler's in-flight total
    QFuture<VideoFrame> future;
    bool drainJob = false;  // the current job drains the decoder
    quint64 imageId = 0;
    qint64 imageTime = 0;

    bool isRunning() const { return !future.isFinished(); }
};

}  // namespace orvo
