#include "orvo/concurrent_decoder_impl.h"

#include "async/decode_scheduler.h"
#include "async/image_decoder.h"
#include "orvo/decoder_preferences.h"
#include "orvo/log.h"

#include <QCoreApplication>
#include <QThreadPool>
#include <QTimer>
#include <QtConcurrent/QtConcurrentRun>
#include <cstdio>
#include <limits>
#include <new>

namespace orvo {

namespace {
LogCategory decoderLog("orvo.async.decoder");

int poolMaxThreads()
{
    return QThreadPool::globalInstance()->maxThreadCount();
}
}  // namespace

// --- ConcurrentDecoderImpl ---------------------------------------------------------------

ConcurrentDecoderImpl::ConcurrentDecoderImpl(QObject* parent)
    : ScheduledAsyncDecoderInterface(parent),
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
        if (iframesOnly_ || waitForIFrame_ || (maxQueue >= 0 && inputQueue_.size() >= maxQueue)) {
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
        if (!inputQueue_.isEmpty()) {
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
        try {
            ok = slot->decodeInto(image, frame, 0);
            pending = !ok && slot->wasPending();
        } catch (...) {
            // No exception leaves the library; the failure is reported by the result.
            ok = false;
        }
        if (pending) {
            // Taken; its picture comes out with a later image or the drain.
            imageDone(image.id(), VideoFrame());
            return 3;
        }
        if (!ok) {
            frameFinished(frame);
            return -1;
        }
        ++decodedFrames_;
        imageDone(image.id(), frame);
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
    inputQueue_.append(image);
    if (!scheduler_)
        scheduler_ = DecodeScheduler::instance();
    scheduler_->schedule(weakSelf_, this, image, 1000);
    trySubmit(1);
    return true;
}

int ConcurrentDecoderImpl::drain()
{
    if (singleThreaded_ && inputQueue_.isEmpty()) {
        const QSharedPointer<ConcurrentDecoderImpl> guard = weakSelf_.toStrongRef();
        if (slots_.isEmpty())
            slots_.append(new DecodingSlot);
        DecodingSlot* slot = slots_.last();
        slot->future.waitForFinished();
        QList<VideoFrame> frames;
        try {
            VideoFrame frame;
            while (slot->drain(frame)) {
                frames.append(frame);
                frame = VideoFrame();
            }
        } catch (...) {
            // No exception leaves the library: what was drained is delivered.
        }
        decodedFrames_ += quint64(frames.size());
        drainDone(frames);
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
    if (inputQueue_.isEmpty())
        return 0;  // the image was dropped from the backlog after it was scheduled
    Image queued = inputQueue_.takeFirst();
    if (queued.id() != image.id())
        oprint(LogStream::StandardOutput,
               "im.id()=%llu image.id()=%llu\n", static_cast<unsigned long long>(queued.id()),
               static_cast<unsigned long long>(image.id()));
    const int started = isDrainRequest(queued) ? drain_async() : decode_async(queued);
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

int ConcurrentDecoderImpl::decode_async(const Image& image)
{
    DecodingSlot* slot = idleSlot(image.id(), image.time(), false);
    if (!slot)
        return 0;
    if (decoderLog.isTraceEnabled())
        olog(decoderLog, LOG_TRACE, "orvo::ConcurrentDecoderImpl::decode_async",
             "Run concurrent job in thread. Img: %s. Threads pool count: %i.", image.idToString().toUtf8().constData(),
             QThreadPool::globalInstance()->activeThreadCount());

    QFuture<VideoFrame> future = slot->startJob(image, slot->formatDecoder(), scaleLevel_);
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
    int count = 0;
    for (int i = 0; i < slots_.size();) {
        DecodingSlot* slot = slots_.at(i);
        if (slot->cancelled || slot->isRunning()) {
            ++i;
            continue;
        }
        const DecoderError error = slot->lastError();
        const VideoFrame frame = slot->takeResult();
        const QList<VideoFrame> drained = slot->takeDrained();
        const bool drainJob = slot->drainJob;
        const quint64 imageId = slot->imageId;
        slot->emitted = true;
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
            decodedFrames_ += quint64(drained.size());
            drainDone(drained);
        } else if (error.isError()) {
            decodingError(DecoderError(error.code(), imageId));
            imageDone(imageId, VideoFrame());
        } else {
            if (!frame.isNull())
                ++decodedFrames_;
            imageDone(imageId, frame);
        }
        ++count;
    }
    return count;
}

void ConcurrentDecoderImpl::imageDone(quint64, const VideoFrame& frame)
{
    if (!frame.isNull())
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

void ConcurrentDecoderImpl::forgetScheduledImages()
{
    if (scheduler_)
        scheduler_->forget(this);
}

void ConcurrentDecoderImpl::clearBacklog()
{
    for (const Image& image : qAsConst(inputQueue_))
        droppedImages_ += isDrainRequest(image) ? 0 : 1;
    inputQueue_.clear();
    // Keeps the scheduler's entries one-to-one with the backlog.
    forgetScheduledImages();
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

// --- OrderedConcurrentDecoderImpl ----------------------------------------------------------

OrderedConcurrentDecoderImpl::OrderedConcurrentDecoderImpl(QObject* parent) : ConcurrentDecoderImpl(parent) {}

OrderedConcurrentDecoderImpl::~OrderedConcurrentDecoderImpl() = default;

void OrderedConcurrentDecoderImpl::frameFinished(const VideoFrame& frame)
{
    place({frame.id(), frame, true});
}

void OrderedConcurrentDecoderImpl::imageDone(quint64 imageId, const VideoFrame& frame)
{
    place({imageId, frame, !frame.isNull()});
}

void OrderedConcurrentDecoderImpl::drainDone(const QList<VideoFrame>& frames)
{
    // The end of the stream: nothing further is waited for.
    flushWaiting();
    for (const VideoFrame& frame : frames)
        emitFrame(frame);
}

void OrderedConcurrentDecoderImpl::release(const Waiting& entry)
{
    lastEmittedId_ = entry.id;
    if (entry.hasFrame)
        emitFrame(entry.frame);
}

void OrderedConcurrentDecoderImpl::flushWaiting()
{
    while (!waitingFrames_.isEmpty())
        release(waitingFrames_.takeFirst());
    lastEmittedId_ = 0;
}

void OrderedConcurrentDecoderImpl::place(const Waiting& entry)
{
    const quint64 id = entry.id;
    // Saturating: ids near the top of the range must not wrap the window to the bottom.
    const quint64 window = lastEmittedId_ > std::numeric_limits<quint64>::max() - reorderLimit_
                               ? std::numeric_limits<quint64>::max()
                               : lastEmittedId_ + reorderLimit_;
    if (id > window)
        flushWaiting();  // too far ahead: give up waiting for the missing ids
    if (lastEmittedId_ == 0 || lastEmittedId_ + 1 == id) {
        release(entry);
        // Drain the successors; stop at a gap (the flush above bridges it later).
        while (!waitingFrames_.isEmpty() && waitingFrames_.first().id == lastEmittedId_ + 1)
            release(waitingFrames_.takeFirst());
        return;
    }
    int pos = 0;
    while (pos < waitingFrames_.size() && waitingFrames_.at(pos).id <= id)
        ++pos;
    waitingFrames_.insert(pos, entry);
}

void OrderedConcurrentDecoderImpl::emitFrame(const VideoFrame& frame)
{
    emit frameDecoded(frame);
}

void OrderedConcurrentDecoderImpl::slotFinished()
{
    finishJob();
}

}  // namespace orvo
