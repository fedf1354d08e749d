#pragma once
// ConcurrentDecoderImpl: decodes one stream on Qt's global thread pool.
//
// At most one decode job runs per object; parallelism comes from many streams at once,
// shared fairly by one process-wide scheduler. Images that cannot start at once wait in
// the object's input queue (the backlog). Frames and errors are emitted on the thread
// that owns the object.
//
// Threads: every ConcurrentDecoderImpl of a process, and everything reached through it
// (queues, the scheduler), belongs to one thread; pool threads only run decode jobs,
// each on its own stream's Decoder. While no other stream waits for a pool thread, a
// stream's job goes on with the stream's next queued image instead of returning to the
// owner thread between two images (each picture is still emitted on the owner thread as
// soon as it is ready, in order). Destroying the object waits for a running job, so no
// job outlives its decoder and no result reaches a destroyed object.
#include "orvo/async_decoder_interfaces.h"

#include <QFuture>
#include <QFutureWatcher>
#include <QList>
#include <QSharedPointer>
#include <QVarLengthArray>
#include <QWeakPointer>
#include <atomic>
#include <memory>

namespace orvo {

class DecodingSlot;
class DecodeScheduler;
struct ImageOutcome;
class StreamBacklog;

class ORVO_EXPORT ConcurrentDecoderImpl : public ScheduledAsyncDecoderInterface {
    Q_OBJECT
public:
    explicit ConcurrentDecoderImpl(QObject* parent = nullptr);
    ~ConcurrentDecoderImpl() override;

    // Asynchronous mode: queues the image and returns 1 (0 when the object was not given
    // a weak pointer to itself, see setWeakPointerToThis; the handles do that).
    // Synchronous mode: decodes at once, emits the frame (also a failed one) and returns
    // 3 or -1; returns 0 without decoding while a backlog remains.
    // Either mode refuses (returns 0, queues nothing, counts it in droppedImages()) a
    // null image, an empty payload and an unknown format code, and an image that is not an I-frame
    // when only I-frames are decoded, when the backlog holds inputQueueMaxSize images,
    // or when an earlier image of its group of pictures was refused: the stream then
    // resumes at its next I-frame, as P-frames without their references decode to
    // garbage. I-frames are accepted (in synchronous mode only without a backlog).
    int decode(const Image& image) override;
    // `maxQueue` bounds the backlog as above.
    int decode(const Image& image, bool clearOnIFrame, int maxQueue, bool synchronous);
    int decodeScheduledImage(Image& image) override;

    // End of stream: queues a job that emits every picture the decoder still holds (each
    // with the identity of its image), after the images queued before it; the decoder
    // then takes a new stream from its next I-frame. Returns 1 (queued), or 3 when done
    // at once in synchronous mode; 0 when not accepted (as decode()).
    int drain();

    virtual void frameFinished(const VideoFrame& frame);
    virtual void decodingError(const DecoderError& error);

    bool isBusy() override { return lastDecodingPending(); }
    bool busyForPFrame() { return lastDecodingPending(); }
    bool busyForIFrame();
    // True while the last job runs (also a cancelled one, whose decoder is still in use)
    // or its result waits to be emitted.
    bool lastDecodingPending() const;
    QFuture<VideoFrame> lastDecodingImage() const;
    quint64 lastDecodingImageId() const;
    quint64 lastDecodingImageTime() const;

    Image lastBacklogImage() const;
    quint64 lastBacklogImageId() const { return lastBacklogImage().id(); }
    quint64 lastBacklogImageTime() const { return quint64(lastBacklogImage().time()); }
    quint64 oldestBacklogImageId() const;
    quint64 oldestBacklogImageTime() const;
    bool isBacklogEmpty() const { return backlogSize() == 0; }
    int backlogSize() const;

    int pendingDecodings() const;          // running jobs whose result will be emitted
    int pendingCanceledDecodings() const;  // running jobs whose result will be dropped

    // Results of running jobs will not be emitted; running jobs are not interrupted.
    void cancelAllPendingDecodings();
    void clearBacklog();
    void reset() override { clearBacklog(); }
    void clear();
    void clearBlocking();
    void commitSafeSuicide();
    void waitForAllFinished();
    void waitForAnyFinished();
    void waitForLastFinished();

    void setScaleLevel(int level) { scaleLevel_.store(level, std::memory_order_relaxed); }
    int scaleLevel() const { return scaleLevel_.load(std::memory_order_relaxed); }
    void setWeakPointerToThis(const QWeakPointer<ConcurrentDecoderImpl>& self) { weakSelf_ = self; }

    int inputQueueMaxSize() const { return inputQueueMaxSize_; }
    void setInputQueueMaxSize(int size) { inputQueueMaxSize_ = size; }
    bool isInputQueueClearedOnIFrames() const { return clearInputQueueOnIFrames_; }
    void setClearInputQueueOnIFrames(bool on) { clearInputQueueOnIFrames_ = on; }
    bool isSingleThreadedMode() const { return singleThreaded_; }
    void setSingleThreadedMode(bool on) { singleThreaded_ = on; }
    // Only I-frames are accepted while on. Switching it off resumes at the next I-frame.
    bool isDecodeIFramesOnly() const { return iframesOnly_; }
    void setDecodeIFramesOnly(bool on) { iframesOnly_ = on; }

    // Images refused by decode() or cleared from the backlog since construction.
    quint64 droppedImages() const { return droppedImages_; }
    // Pictures decoded and handed on (frameFinished) since construction; failed decodes
    // and results of cancelled jobs do not count.
    quint64 decodedFrames() const { return decodedFrames_; }

protected:
    // `serial`: the image's place in the backlog (0 for an image that never was in it).
    int decode_async(const Image& image, quint64 serial = 0);
    int drain_async();
    // One image's job is done: `frames` are the pictures that came out (each carrying the
    // identity of its own image, maybe an earlier one), in output order; none when none
    // did. The base hands each to frameFinished(); the ordered decoder keys its order on
    // `imageId`.
    virtual void imageDone(quint64 imageId, const QList<VideoFrame>& frames);
    // A drain job is done: the held pictures in output order.
    virtual void drainDone(const QList<VideoFrame>& frames);
    // The work of slotFinished(), shared with overrides.
    void finishJob();

protected slots:
    virtual void slotFinished();
    int trySubmit(int envoked_from = 0);

private:
    // The stream's slot prepared for a new job, or null while its job still runs.
    DecodingSlot* idleSlot(quint64 imageId, qint64 imageTime, bool drainJob);
    int emitFinishedImages();
    void forgetScheduledImages();
    bool queueImage(const Image& image);
    // Results of images after which a job went on with the next one: emitted as finished
    // jobs' results are.
    Q_INVOKABLE void takeRelayed();
    // The backlog moves on past a handled result (the image the job went on with is the
    // running one now).
    void advanceBacklog(DecodingSlot* slot, quint64 doneSerial);
    void forgetScheduled(const QVarLengthArray<quint64, 4>& serials);
    void emitResult(quint64 imageId, const ImageOutcome& outcome);
    class Relay;
    friend class Relay;
    // Drain requests wait in the backlog as images with an empty payload, which decode()
    // never queues.
    static bool isDrainRequest(const Image& image) { return image.payloadSize() == 0; }
    DecodingSlot* lastSlot() const { return slots_.isEmpty() ? nullptr : slots_.last(); }

    QList<DecodingSlot*> slots_;
    QFutureWatcher<VideoFrame> watcher_;
    std::unique_ptr<StreamBacklog> backlog_;
    std::unique_ptr<Relay> relay_;
    QWeakPointer<ConcurrentDecoderImpl> weakSelf_;
    QSharedPointer<DecodeScheduler> scheduler_;
    int inputQueueMaxSize_ = 2147483647;
    bool singleThreaded_;
    bool clearInputQueueOnIFrames_ = false;
    std::atomic<int> scaleLevel_{0};
    bool iframesOnly_ = false;
    // A non-I-frame was refused (also in I-frame-only mode): later ones are refused until
    // the next I-frame, which is also how switching that mode off resumes cleanly.
    bool waitForIFrame_ = false;
    quint64 droppedImages_ = 0;
    quint64 decodedFrames_ = 0;
};

// Delivers frames in the order of their ids (stamp images with generateNextFrameId()),
// holding back frames that finish early. Errors are emitted at once.
class ORVO_EXPORT OrderedConcurrentDecoderImpl : public ConcurrentDecoderImpl {
    Q_OBJECT
public:
    explicit OrderedConcurrentDecoderImpl(QObject* parent = nullptr);
    ~OrderedConcurrentDecoderImpl() override;

    // Emits in id order: frame.id() is the position.
    void frameFinished(const VideoFrame& frame) override;
    virtual void emitFrame(const VideoFrame& frame);

    quint64 generateNextFrameId() { return nextFrameId_++; }
    quint64 reorderLimit() const { return reorderLimit_; }
    void setReorderLimit(quint64 limit) { reorderLimit_ = limit; }
    quint64 lastEmittedId() const { return lastEmittedId_; }
    int waitingFrameCount() const { return waitingFrames_.size(); }

protected:
    void slotFinished() override;
    // Pooled results take their place by the id of the image whose job made them, so that
    // held-back pictures (which carry an earlier image's id) keep the decoder's output
    // order, and images without a picture (parameter sets, failures) leave no gap.
    void imageDone(quint64 imageId, const QList<VideoFrame>& frames) override;
    void drainDone(const QList<VideoFrame>& frames) override;

private:
    struct Waiting {
        quint64 id;
        QList<VideoFrame> frames;  // none: an image without a picture, which only moves the position on
    };
    void place(const Waiting& entry);
    void release(const Waiting& entry);
    void flushWaiting();

    QList<Waiting> waitingFrames_;
    quint64 reorderLimit_ = 24;
    quint64 lastEmittedId_ = 0;
    quint64 nextFrameId_ = 1;
};

}  // namespace orvo
