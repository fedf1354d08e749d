#include "orvo/concurrent_decoder_impl.h"

#include "async/decode_scheduler.h"
#include "async/image_decoder.h"
#include "async/stream_backlog.h"
#include "orvo/decoder_preferences.h"
#include "orvo/log.h"

#include <QCoreApplication>
#include <QThreadPool>
#include <QTimer>
#include <QtConcurrent/QtConcurrentRun>
#include <deque>
#include <mutex>

namespace orvo {

namespace {
LogCategory decoderLog("orvo.async.decoder");

int poolMaxThreads()
{
    return QThreadPool::globalInstance()->maxThreadCount();
}
}  // namespace

// Lets a running job go on with its stream's next image. It lives as long as the decoder,
// which outlives its jobs (its destructor waits for them).
class ConcurrentDecoderImpl::Relay final : public JobRelay {
public:
    struct Result {
        quint64 epoch = 0, serial = 0, imageId = 0;
        ImageOutcome outcome;
    };

    explicit Relay(ConcurrentDecoderImpl* owner) : owner_(owner) {}

    bool takeNext(quint64 epoch, Image& image, quint64& serial, int& scale) override
    {
        if (epoch != epoch_.load(std::memory_order_acquire) || DecodeScheduler::othersWaiting())
            return false;
        scale = owner_->scaleLevel();
        return owner_->backlog_->takeNext(image, serial);
    }

    void relay(quint64 epoch, quint64 serial, quint64 imageId, ImageOutcome outcome) override
    {
        bool wasEmpty = false;
        {
            // Handed over under a standard mutex, which race checkers follow (Qt's event
            // queue locks inside Qt, where they cannot see).
            const std::lock_guard<std::mutex> lock(mutex_);
            wasEmpty = results_.empty();
            results_.push_back({epoch, serial, imageId, std::move(outcome)});
        }
        // One wake-up per batch: the owner takes results until the queue is empty, so a
        // result that finds it non-empty is taken by the wake-up already on its way. Dropped
        // by Qt if the decoder is gone by then; by name, so that the event is made and freed
        // inside Qt, with nothing of ours in it.
        if (wasEmpty)
            QMetaObject::invokeMethod(owner_, "takeRelayed", Qt::QueuedConnection);
    }

    // Owner thread: the oldest relayed result, in the order the job relayed them.
    bool take(Result& result)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (results_.empty())
            return false;
        result = std::move(results_.front());
        results_.pop_front();
        return true;
    }

    // Owner thread: running jobs stop going on, and their relayed results are dropped.
    void cancel() { epoch_.fetch_add(1, std::memory_order_acq_rel); }
    quint64 epoch() const { return epoch_.load(std::memory_order_acquire); }

private:
    ConcurrentDecoderImpl* const owner_;
    std::atomic<quint64> epoch_{1};
    std::mutex mutex_;
    std::deque<Result> results_;
};

// --- ConcurrentDecoderImpl ---------------------------------------------------------------

ConcurrentDecoderImpl::ConcurrentDecoderImpl(QObject* parent)
    : ScheduledAsyncDecoderInterface(parent),
      backlog_(std::make_unique<StreamBacklog>()),
      relay_(std::make_unique<Relay>(this)),
      singleThreaded_(DecoderPreferences::instance()->isSingleThreadedDecoding())
{
    slots_.append(new DecodingSlot);
    // Parented so that the watcher follows this object to another thread.
    watcher_.setParent(this);
    connect(&watcher_, &QFutureWatcherBase::finished, this, &ConcurrentDecoderImpl::slotFinished);
}

ConcurrentDecoderImpl::~ConcurrentDecoderImpl()
{
    // No job may outlive the slot it runs on.
    commitSafeSuicide();
    watcher_.disconnect(this);
    if (scheduler_) {
        scheduler_->forget(this);
        // Jobs whose finish will never be handled here: give their share back, or the
        // scheduler would count them as running for ever.
        int handedBack = 0;
        for (DecodingSlot* slot : qAsConst(slots_)) {
            if (slot->counted) {
                scheduler_->jobDone();
                ++handedBack;
            }
        }
        // That capacity would have been passed on by the finish this object no longer
        // handles; pass it on from the event loop, or other streams could wait for ever.
        if (handedBack > 0 && QCoreApplication::instance()) {
            const QSharedPointer<DecodeScheduler> scheduler = scheduler_;
            QTimer::singleShot(0, [scheduler] { scheduler->submit(); });
        }
    }
    // commitSafeSuicide() waited for every job through its future (Qt's own locking); reading
    // each job's last release makes that order visible to race checkers before the slots go.
    for (DecodingSlot* slot : qAsConst(slots_))
        (void)slot->lastError();
    qDeleteAll(slots_);
    slots_.clear();
}

int ConcurrentDecoderImpl::decode(const Image& image)
{
    return decode(image, clearInputQueueOnIFrames_, inputQueueMaxSize_, singleThreaded_);
}

int ConcurrentDecoderImpl::decode(const Image& image, bool clearOnIFrame, int maxQueue, bool synchronous)
{
    // Nothing to decode: refused here, so that it never takes a place in the backlog.
    if (image.isNull() || image.payloadSize() == 0 || !Decoder::isKnownFormat(image.type())) {
        ++droppedImages_;
        return 0;
    }
    if (!image.iframe()) {
        // A wall that cannot keep up must stay near live: beyond the bound, and in
        // I-frame-only mode, inter frames are refused until the next I-frame.
        if (iframesOnly_ || waitForIFrame_ || (maxQueue >= 0 && backlog_->size() >= maxQueue)) {
            waitForIFrame_ = true;
            ++droppedImages_;
            return 0;
        }
    } else {
        waitForIFrame_ = false;
        if (clearOnIFrame)
            clearBacklog();  // older images are useless once an I-frame is there
    }

    if (synchronous) {
        if (backlog_->size() > 0) {
            // Its successors would predict from it: they wait for the next I-frame too.
            waitForIFrame_ = true;
            ++droppedImages_;
            return 0;
        }
        // A frameDecoded handler may destroy the handle that owns this object.
        const QSharedPointer<ConcurrentDecoderImpl> guard = weakSelf_.toStrongRef();
        if (slots_.isEmpty())
            slots_.append(new DecodingSlot);
        DecodingSlot* slot = slots_.last();
        // A job of the asynchronous mode may still be using this slot's decoder.
        slot->future.waitForFinished();
        VideoFrame frame;
        bool ok = false;
        bool pending = false;
        ImageOutcome outcome;
        try {
            ok = slot->decodeInto(image, frame, 0);
            pending = !ok && slot->wasPending();
            outcome = slot->takeOutcome();
        } catch (...) {
            // No exception leaves the library; the failure is reported by the result.
            ok = false;
        }
        for (const DecoderError& ended : qAsConst(outcome.ended))
            decodingError(ended);
        if (pending) {
            // Taken; its picture comes out with a later image or the drain.
            imageDone(image.id(), {});
            return 3;
        }
        if (!ok) {
            frameFinished(frame);
            return -1;
        }
        outcome.frames.prepend(frame);
        decodedFrames_ += quint64(outcome.frames.size());
        imageDone(image.id(), outcome.frames);
        return 3;
    }

    return queueImage(image) ? 1 : 0;
}

bool ConcurrentDecoderImpl::queueImage(const Image& image)
{
    if (weakSelf_.isNull()) {
        // Queued work refers to decoders weakly; without a weak handle to this object
        // (setWeakPointerToThis, done by the handles) the image could never be started.
        olog(decoderLog, LOG_ERROR, "orvo::ConcurrentDecoderImpl::decode",
             "No weak pointer to the decoder set; image %llu not accepted.",
             static_cast<unsigned long long>(image.id()));
        ++droppedImages_;
        return false;
    }
    const quint64 serial = backlog_->append(image);
    if (!scheduler_)
        scheduler_ = DecodeScheduler::instance();
    scheduler_->schedule(weakSelf_, this, image, serial);
    trySubmit(1);
    return true;
}

int ConcurrentDecoderImpl::drain()
{
    if (singleThreaded_ && backlog_->size() == 0) {
        const QSharedPointer<ConcurrentDecoderImpl> guard = weakSelf_.toStrongRef();
        if (slots_.isEmpty())
            slots_.append(new DecodingSlot);
        DecodingSlot* slot = slots_.last();
        slot->future.waitForFinished();
        QList<VideoFrame> frames;
        QList<DecoderError> ended;
        try {
            VideoFrame frame;
            while (slot->drain(frame)) {
                frames.append(frame);
                frame = VideoFrame();
            }
            ended = takeEndedAsErrors(*slot);
        } catch (...) {
            // No exception leaves the library: what was drained is delivered.
        }
        decodedFrames_ += quint64(frames.size());
        drainDone(frames);
        for (const DecoderError& e : qAsConst(ended))
            decodingError(e);
        return 3;
    }
    // A distinct record, so that the scheduler's weak reference to it stays valid while
    // the request waits.
    Image request;
    request.setType(0);
    return queueImage(request) ? 1 : 0;
}

int ConcurrentDecoderImpl::decodeScheduledImage(Image& image)
{
    DecodingSlot* slot = lastSlot();
    if (slot && slot->isRunning())
        return 0;  // one job per decoder: its Decoder is not to be shared between threads
    Image queued;
    quint64 serial = 0;
    if (!backlog_->takeFirst(queued, serial))
        return 0;  // the image was dropped from the backlog after it was scheduled
    if (queued.id() != image.id())
        oprint(LogStream::StandardOutput,
               "im.id()=%llu image.id()=%llu\n", static_cast<unsigned long long>(queued.id()),
               static_cast<unsigned long long>(image.id()));
    const int started = isDrainRequest(queued) ? drain_async() : decode_async(queued, serial);
    if (started > 0)
        lastSlot()->counted = true;
    return started;
}

DecodingSlot* ConcurrentDecoderImpl::idleSlot(quint64 imageId, qint64 imageTime, bool drainJob)
{
    if (slots_.isEmpty())
        slots_.append(new DecodingSlot);
    DecodingSlot* slot = slots_.last();
    if (slot->isRunning())
        return nullptr;
    // Orders the finished job's last writes (into its decoder) before the next job is handed
    // that decoder here, also when the finish itself has not been handled yet.
    (void)slot->lastError();
    slot->imageId = imageId;
    slot->imageTime = imageTime;
    slot->drainJob = drainJob;
    slot->cancelled = false;
    slot->emitted = false;
    if (slot->counted) {
        // The previous job finished but its finish was not handled yet (it was
        // cancelled): settle its count now, the flag is about to be reused.
        slot->counted = false;
        if (scheduler_)
            scheduler_->jobDone();
    }
    return slot;
}

int ConcurrentDecoderImpl::decode_async(const Image& image, quint64 serial)
{
    DecodingSlot* slot = idleSlot(image.id(), image.time(), false);
    if (!slot)
        return 0;
    if (decoderLog.isTraceEnabled())
        olog(decoderLog, LOG_TRACE, "orvo::ConcurrentDecoderImpl::decode_async",
             "Run concurrent job in thread. Img: %s. Threads pool count: %i.", image.idToString().toUtf8().constData(),
             QThreadPool::globalInstance()->activeThreadCount());

    // Only a job started from the backlog goes on with the backlog's next images.
    QFuture<VideoFrame> future = slot->startJob(image, slot->formatDecoder(), scaleLevel(),
                                                serial ? relay_.get() : nullptr, serial, relay_->epoch());
    if (watcher_.future() != future)
        watcher_.setFuture(future);
    slot->future = future;
    return 2;
}

int ConcurrentDecoderImpl::drain_async()
{
    DecodingSlot* slot = idleSlot(0, 0, true);
    if (!slot)
        return 0;
    QFuture<VideoFrame> future = slot->startDrainJob(slot->formatDecoder());
    if (watcher_.future() != future)
        watcher_.setFuture(future);
    slot->future = future;
    return 2;
}

int ConcurrentDecoderImpl::trySubmit(int envoked_from)
{
    Q_UNUSED(envoked_from);
    if (!scheduler_)
        scheduler_ = DecodeScheduler::instance();
    return scheduler_->submit();
}

void ConcurrentDecoderImpl::slotFinished()
{
    finishJob();
}

void ConcurrentDecoderImpl::finishJob()
{
    // A handler of frameDecoded may destroy the handle that owns this object; stay alive
    // until this call is done.
    const QSharedPointer<ConcurrentDecoderImpl> guard = weakSelf_.toStrongRef();

    for (DecodingSlot* slot : qAsConst(slots_)) {
        if (slot->counted && !slot->isRunning()) {
            slot->counted = false;
            if (scheduler_)
                scheduler_->jobDone();
        }
    }
    // The freed capacity goes to whichever stream is next (this one still counts as busy).
    trySubmit(2);
    emitFinishedImages();
    // Now this stream is idle: start its own next image without waiting for another
    // decode call anywhere in the process.
    trySubmit(2);
}

int ConcurrentDecoderImpl::emitFinishedImages()
{
    // A finished job's relayed results come before its last one, whatever order the
    // events arrive in (a previous job's late finish can come first).
    takeRelayed();
    int count = 0;
    for (int i = 0; i < slots_.size();) {
        DecodingSlot* slot = slots_.at(i);
        if (slot->cancelled || slot->isRunning()) {
            ++i;
            continue;
        }
        const DecoderError error = slot->lastError();
        const ImageOutcome outcome = slot->takeOutcome();
        const bool drainJob = slot->drainJob;
        // A job that went on with further images ends with the last of them.
        const quint64 imageId = drainJob ? slot->imageId : slot->jobImageId();
        const quint64 serial = drainJob ? 0 : slot->jobSerial();
        slot->emitted = true;
        if (serial)
            advanceBacklog(slot, serial);
        // Done with the slot before emitting: a handler may start this decoder's next job.
        if (i != slots_.size() - 1 && slots_.size() > poolMaxThreads()) {
            slots_.removeAt(i);
            delete slot;
        } else {
            slot->cancelled = true;
            ++i;
        }
        if (drainJob) {
            // A drain that failed half-way still delivers what it got.
            if (error.isError())
                decodingError(error);
            decodedFrames_ += quint64(outcome.frames.size());
            drainDone(outcome.frames);
            for (const DecoderError& ended : outcome.ended)
                decodingError(ended);
        } else if (!(serial && backlog_->wasRemoved(serial))) {
            emitResult(imageId, outcome);
        }
        ++count;
    }
    return count;
}

void ConcurrentDecoderImpl::emitResult(quint64 imageId, const ImageOutcome& outcome)
{
    // Earlier images that will never give a picture are answered first.
    for (const DecoderError& ended : outcome.ended)
        decodingError(ended);
    if (outcome.errorCode) {
        decodingError(DecoderError(outcome.errorCode, imageId, outcome.reason));
        imageDone(imageId, {});
        return;
    }
    decodedFrames_ += quint64(outcome.frames.size());
    imageDone(imageId, outcome.frames);
}

void ConcurrentDecoderImpl::takeRelayed()
{
    // A frameDecoded handler may destroy the handle that owns this object.
    const QSharedPointer<ConcurrentDecoderImpl> guard = weakSelf_.toStrongRef();
    Relay::Result r;
    while (relay_->take(r)) {
        DecodingSlot* slot = lastSlot();
        if (r.epoch != relay_->epoch() || !slot)
            continue;  // the job was cancelled: its results are not shown
        // The job's next image is running now: it leaves the backlog before anyone looks.
        advanceBacklog(slot, r.serial);
        // A handler that destroys the handle cancels the job: later results are dropped above.
        if (!backlog_->wasRemoved(r.serial))
            emitResult(r.imageId, r.outcome);
    }
}

void ConcurrentDecoderImpl::advanceBacklog(DecodingSlot* slot, quint64 doneSerial)
{
    quint64 id = 0;
    qint64 time = 0;
    StreamBacklog::Serials removed;
    if (backlog_->advance(doneSerial, id, time, removed)) {
        slot->imageId = id;
        slot->imageTime = time;
    }
    forgetScheduled(removed);
}

void ConcurrentDecoderImpl::imageDone(quint64, const QList<VideoFrame>& frames)
{
    for (const VideoFrame& frame : frames)
        frameFinished(frame);
}

void ConcurrentDecoderImpl::drainDone(const QList<VideoFrame>& frames)
{
    for (const VideoFrame& frame : frames)
        frameFinished(frame);
}

void ConcurrentDecoderImpl::frameFinished(const VideoFrame& frame)
{
    emit frameDecoded(frame);
}

void ConcurrentDecoderImpl::decodingError(const DecoderError& error)
{
    emit this->error(error);
}

bool ConcurrentDecoderImpl::busyForIFrame()
{
    QThreadPool* pool = QThreadPool::globalInstance();
    return slots_.size() >= pool->maxThreadCount() || pool->activeThreadCount() >= pool->maxThreadCount();
}

bool ConcurrentDecoderImpl::lastDecodingPending() const
{
    const DecodingSlot* slot = lastSlot();
    if (!slot)
        return false;
    if (slot->isRunning())
        return true;  // also when cancelled: the job still uses the slot's decoder
    if (slot->cancelled)
        return false;
    return !slot->emitted;
}

QFuture<VideoFrame> ConcurrentDecoderImpl::lastDecodingImage() const
{
    const DecodingSlot* slot = lastSlot();
    return slot ? slot->future : QFuture<VideoFrame>();
}

quint64 ConcurrentDecoderImpl::lastDecodingImageId() const
{
    const DecodingSlot* slot = lastSlot();
    return slot ? slot->imageId : 0;
}

quint64 ConcurrentDecoderImpl::lastDecodingImageTime() const
{
    const DecodingSlot* slot = lastSlot();
    return slot ? quint64(slot->imageTime) : 0;
}

int ConcurrentDecoderImpl::pendingDecodings() const
{
    int n = 0;
    for (const DecodingSlot* slot : slots_)
        n += (!slot->cancelled && slot->isRunning()) ? 1 : 0;
    return n;
}

int ConcurrentDecoderImpl::pendingCanceledDecodings() const
{
    int n = 0;
    for (const DecodingSlot* slot : slots_)
        n += (slot->cancelled && slot->isRunning()) ? 1 : 0;
    return n;
}

void ConcurrentDecoderImpl::cancelAllPendingDecodings()
{
    // Running jobs stop going on with further images; images they already took are
    // lost with them.
    relay_->cancel();
    StreamBacklog::Serials taken;
    backlog_->removeTaken(taken);
    droppedImages_ += quint64(taken.size());
    forgetScheduled(taken);
    for (DecodingSlot* slot : qAsConst(slots_))
        slot->cancelled = true;
    for (int i = 0; i < slots_.size();) {
        DecodingSlot* slot = slots_.at(i);
        if (i != slots_.size() - 1 && !slot->isRunning() && slots_.size() <= poolMaxThreads()) {
            if (slot->counted && scheduler_)
                scheduler_->jobDone();
            (void)slot->lastError();  // orders the finished job's last writes before the delete
            slots_.removeAt(i);
            delete slot;
        } else {
            ++i;
        }
    }
}

void ConcurrentDecoderImpl::forgetScheduled(const StreamBacklog::Serials& serials)
{
    // Each image that left the backlog without being started from it had its entry with
    // the scheduler.
    if (scheduler_)
        for (const quint64 serial : serials)
            scheduler_->forget(this, serial);
}

void ConcurrentDecoderImpl::forgetScheduledImages()
{
    if (scheduler_)
        scheduler_->forget(this);
}

void ConcurrentDecoderImpl::clearBacklog()
{
    int dropped = 0;
    backlog_->clear(dropped);
    droppedImages_ += quint64(dropped);
    // Keeps the scheduler's entries one-to-one with the backlog.
    forgetScheduledImages();
}

Image ConcurrentDecoderImpl::lastBacklogImage() const
{
    return backlog_->last();
}

quint64 ConcurrentDecoderImpl::oldestBacklogImageId() const
{
    return backlog_->first().id();
}

quint64 ConcurrentDecoderImpl::oldestBacklogImageTime() const
{
    return quint64(backlog_->first().time());
}

int ConcurrentDecoderImpl::backlogSize() const
{
    return backlog_->size();
}

void ConcurrentDecoderImpl::clear()
{
    clearBacklog();
    cancelAllPendingDecodings();
}

void ConcurrentDecoderImpl::clearBlocking()
{
    clear();
    waitForAllFinished();
}

void ConcurrentDecoderImpl::commitSafeSuicide()
{
    cancelAllPendingDecodings();
    waitForAllFinished();
}

void ConcurrentDecoderImpl::waitForAllFinished()
{
    for (DecodingSlot* slot : qAsConst(slots_)) {
        if (slot->isRunning())
            slot->future.waitForFinished();
    }
}

void ConcurrentDecoderImpl::waitForAnyFinished()
{
    for (DecodingSlot* slot : qAsConst(slots_)) {
        if (slot->isRunning()) {
            slot->future.waitForFinished();
            return;
        }
    }
}

void ConcurrentDecoderImpl::waitForLastFinished()
{
    if (DecodingSlot* slot = lastSlot())
        slot->future.waitForFinished();
}

}  // namespace orvo
