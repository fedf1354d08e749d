#pragma once
// ConcurrentDecoderImpl: decodes one stream on Qt's global thread pool.
//
// At most one decode job runs per object; parallelism comes from many streams at once,
// shared fairly by one process-wide scheduler. Images that cannot start at once wait in
// the object's input queue (the backlog). Frames and errors are emitted on the thread
// that owns the object.
//
// Threads: a ConcurrentDecoderImpl belongs to one thread, its owner thread, which must
// run an event loop; pool threads only decode, each stream's images in order on its own
// Decoder. While no other stream waits for a pool thread, a stream goes on with its next
// queued image without returning to the owner thread (each picture is still emitted on
// the owner thread as soon as it is ready, in order). Destroying the object waits for
// the image being decoded, so no result reaches a destroyed object.
#include "orvo/async_decoder_interfaces.h"

#include <QFuture>
#include <QList>
#include <QSharedPointer>
#include <QWeakPointer>
#include <deque>
#include <memory>

namespace orvo {

struct ImageOutcome;
class StreamSequence;

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

    // End of stream: queues a job that emits every picture the decoder still holds (each
    // with the identity of its image), after the images queued before it; the decoder
    // then takes a new stream from its next I-frame. Returns 1 (queued), or 3 when done
    // at once in synchronous mode; 0 when not accepted (as decode()).
    int drain();

    virtual void frameFinished(const VideoFrame& frame);
    virtual void decodingError(const DecoderError& error);

    // 1 while the stream's images are being decoded on the pool, else 0 (the stream asks
    // the scheduler for a pool thread itself; `image` is not used).
    int decodeScheduledImage(Image& image) override;

    bool isBusy() override { return lastDecodingPending(); }
    bool busyForPFrame() { return lastDecodingPending(); }
    bool busyForIFrame();
    // True while an image is decoded (also a cancelled one, whose decoder is still in use)
    // or its result waits to be emitted.
    bool lastDecodingPending() const;
    // Finishes with the image being decoded; a finished future when none is.
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

    int pendingDecodings() const;          // images being decoded whose result will be emitted (0 or 1)
    int pendingCanceledDecodings() const;  // images being decoded whose result will be dropped

    // Results of images being decoded will not be emitted (they are counted as dropped);
    // decoding is not interrupted. Queued images stay queued.
    void cancelAllPendingDecodings();
    void clearBacklog();
    void reset() override { clearBacklog(); }
    void clear();
    void clearBlocking();
    void commitSafeSuicide();
    // Each blocks until the image being decoded now is done (there is at most one).
    void waitForAllFinished();
    void waitForAnyFinished();
    void waitForLastFinished();

    void setScaleLevel(int level);
    int scaleLevel() const { return scaleLevel_; }
    // See Decoder::setMaxOutputSize; applies to images taken from now on.
    void setMaxOutputSize(const QSize& size);
    QSize maxOutputSize() const { return maxOutputSize_; }
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

    // Which path the stream's pictures took in the last image answered (DecodingPath;
    // Engine::None before the first). decodingPathChanged() tells each change.
    DecodingPath decodingPath() const { return path_; }

    // Images refused by decode() or cleared from the backlog since construction.
    quint64 droppedImages() const { return droppedImages_; }
    // Pictures decoded and handed on (frameFinished) since construction; failed decodes
    // and results of cancelled jobs do not count.
    quint64 decodedFrames() const { return decodedFrames_; }

protected:
    // One image is answered: `frames` are the pictures that came out (each carrying the
    // identity of its own image, maybe an earlier one), in output order; none when none
    // did. The base hands each to frameFinished(); the ordered decoder keys its order on
    // `imageId`.
    virtual void imageDone(quint64 imageId, const QList<VideoFrame>& frames);
    // A drain is done: the held pictures in output order.
    virtual void drainDone(const QList<VideoFrame>& frames);

private:
    // Accepted work the owner has not seen answered yet, oldest first.
    struct Accepted {
        quint64 serial;
        Image image;  // a drain request carries none
        bool drain;
    };
    bool queueWork(const Image& image, bool drain);
    // The sequence's results: each answers the oldest accepted work, unless that work was
    // cleared or cancelled since. The one wake-up per batch of results.
    void takeResults();
    void emitResult(quint64 imageId, const ImageOutcome& outcome);
    void emitDrained(const ImageOutcome& outcome);
    // Accepted work that will not be answered (cleared or cancelled), counted in droppedImages().
    void drop(const Accepted& work);
    // Pictures and ends of dropped images that a run had taken before they were dropped.
    void forgetDropped(ImageOutcome& outcome) const;
    // Synchronous mode: the sequence's work is done and answered, its decoder is free.
    void settleForSynchronous();
    // Accepted work behind the one being decoded.
    int backlogCount() const;
    const Accepted* backlogFront() const;
    void markRunning(quint64 serial);
    void notePath(const DecodingPath& path);

    std::shared_ptr<StreamSequence> sequence_;
    std::deque<Accepted> accepted_;
    std::deque<quint64> droppedIds_;  // the latest dropped images' ids
    quint64 nextSerial_ = 1;
    quint64 startedAtOnce_ = 0;  // the last work a run was started for when it was queued
    quint64 runningSerial_ = 0;  // the accepted work being decoded as the owner knows it; 0: none
    quint64 epoch_ = 1;          // bumped by a cancel: results of older work are dropped
    quint64 lastImageId_ = 0;
    qint64 lastImageTime_ = 0;
    QWeakPointer<ConcurrentDecoderImpl> weakSelf_;
    int inputQueueMaxSize_ = 2147483647;
    bool singleThreaded_;
    bool clearInputQueueOnIFrames_ = false;
    int scaleLevel_ = 0;
    QSize maxOutputSize_;
    bool iframesOnly_ = false;
    // A non-I-frame was refused (also in I-frame-only mode): later ones are refused until
    // the next I-frame, which is also how switching that mode off resumes cleanly.
    bool waitForIFrame_ = false;
    quint64 droppedImages_ = 0;
    quint64 decodedFrames_ = 0;
    DecodingPath path_;
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
