#include "orvo/concurrent_decoder_impl.h"

#include "async/image_decoder.h"
#include "async/stream_sequence.h"
#include "orvo/decoder_preferences.h"
#include "orvo/log.h"

#include <QThreadPool>

#include <algorithm>

namespace orvo {

namespace {
LogCategory decoderLog("orvo.async.decoder");
}  // namespace

ConcurrentDecoderImpl::ConcurrentDecoderImpl(QObject* parent)
    : ScheduledAsyncDecoderInterface(parent),
      sequence_(std::make_shared<StreamSequence>(this, [this] { takeResults(); })),
      singleThreaded_(DecoderPreferences::instance()->isSingleThreadedDecoding())
{
}

ConcurrentDecoderImpl::~ConcurrentDecoderImpl()
{
    // Nothing reaches this object once the sequence is closed; it waits for the image being
    // decoded, so that no decoding outlives its decoder object's owner.
    sequence_->close();
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
        if (iframesOnly_ || waitForIFrame_ || (maxQueue >= 0 && backlogCount() >= maxQueue)) {
            waitForIFrame_ = true;
            ++droppedImages_;
            return 0;
        }
    } else {
        waitForIFrame_ = false;
        if (clearOnIFrame)
            clearBacklog();  // older images are useless once an I-frame is there
    }
    if (!synchronous)
        return queueWork(image, false) ? 1 : 0;

    if (backlogCount() > 0) {
        // Its successors would predict from it: they wait for the next I-frame too.
        waitForIFrame_ = true;
        ++droppedImages_;
        return 0;
    }
    // A frameDecoded handler may destroy the handle that owns this object.
    const QSharedPointer<ConcurrentDecoderImpl> guard = weakSelf_.toStrongRef();
    settleForSynchronous();
    ImageDecoder& decoder = sequence_->decoder();
    decoder.setMaxOutputSize(maxOutputSize_);
    VideoFrame frame;
    bool ok = false;
    bool pending = false;
    ImageOutcome outcome;
    try {
        ok = decoder.decodeInto(image, frame, 0);
        pending = !ok && decoder.wasPending();
        outcome = decoder.takeOutcome();
    } catch (...) {
        // No exception leaves the library; the failure is reported by the result.
        ok = false;
    }
    notePath(outcome.path);
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

int ConcurrentDecoderImpl::drain()
{
    if (!singleThreaded_ || backlogCount() > 0)
        return queueWork(Image(), true) ? 1 : 0;
    const QSharedPointer<ConcurrentDecoderImpl> guard = weakSelf_.toStrongRef();
    settleForSynchronous();
    sequence_->decoder().setMaxOutputSize(maxOutputSize_);
    const ImageOutcome drained = sequence_->decoder().drainAll();
    notePath(drained.path);
    emitDrained(drained);
    return 3;
}

void ConcurrentDecoderImpl::settleForSynchronous()
{
    sequence_->waitIdle();
    takeResults();  // earlier images are answered before this one
}

bool ConcurrentDecoderImpl::queueWork(const Image& image, bool drain)
{
    if (weakSelf_.isNull()) {
        // Results come back through a guard made from the weak handle (a handler may destroy
        // the handle that owns this object); without it (setWeakPointerToThis, done by the
        // handles) nothing is accepted.
        olog(decoderLog, LOG_ERROR, "orvo::ConcurrentDecoderImpl::decode",
             "No weak pointer to the decoder set; image %llu not accepted.",
             static_cast<unsigned long long>(image.id()));
        droppedImages_ += drain ? 0 : 1;
        return false;
    }
    if (decoderLog.isTraceEnabled())
        olog(decoderLog, LOG_TRACE, "orvo::ConcurrentDecoderImpl::decode_async",
             "Run concurrent job in thread. Img: %s. Threads pool count: %i.", image.idToString().toUtf8().constData(),
             QThreadPool::globalInstance()->activeThreadCount());
    const quint64 serial = nextSerial_++;
    if (!drain)  // a client that repeats ids: the new image is answered
        droppedIds_.erase(std::remove(droppedIds_.begin(), droppedIds_.end(), image.id()), droppedIds_.end());
    accepted_.push_back({serial, image, drain});
    if (sequence_->append({image, serial, drain, {}})) {
        startedAtOnce_ = serial;
        if (runningSerial_ == 0 && accepted_.front().serial == serial)
            markRunning(serial);
    }
    return true;
}

void ConcurrentDecoderImpl::markRunning(quint64 serial)
{
    runningSerial_ = serial;
    lastImageId_ = accepted_.front().image.id();
    lastImageTime_ = accepted_.front().image.time();
}

void ConcurrentDecoderImpl::takeResults()
{
    // A frameDecoded handler may destroy the handle that owns this object: stay alive until
    // this call is done (its cancel then makes the remaining results stale).
    const QSharedPointer<ConcurrentDecoderImpl> guard = weakSelf_.toStrongRef();
    SequenceResult r;
    while (sequence_->take(r)) {
        const bool answersFront = !accepted_.empty() && accepted_.front().serial == r.serial;
        Accepted done;
        if (answersFront) {
            done = std::move(accepted_.front());
            accepted_.pop_front();
        }
        // What is decoded now: the work the run went on with, or work a new run was
        // started for at once.
        const quint64 next = r.nextSerial ? r.nextSerial : startedAtOnce_;
        runningSerial_ = 0;
        if (!accepted_.empty() && accepted_.front().serial == next)
            markRunning(next);
        notePath(r.outcome.path);  // a fact about the stream, also for results not shown
        if (r.epoch != epoch_) {
            if (answersFront)
                drop(done);  // cancelled while it was decoded
            continue;
        }
        forgetDropped(r.outcome);
        if (!answersFront) {
            // Cleared from the backlog (and counted) after the run took it: what it answers
            // of earlier images still goes out.
            for (const DecoderError& ended : qAsConst(r.outcome.ended))
                decodingError(ended);
            decodedFrames_ += quint64(r.outcome.frames.size());
            for (const VideoFrame& frame : qAsConst(r.outcome.frames))
                frameFinished(frame);
            continue;
        }
        if (done.drain)
            emitDrained(r.outcome);
        else
            emitResult(done.image.id(), r.outcome);
    }
}

void ConcurrentDecoderImpl::drop(const Accepted& work)
{
    if (work.drain)
        return;
    ++droppedImages_;
    // The run may have taken it already: a later picture or end of it is not shown either.
    droppedIds_.push_back(work.image.id());
    if (droppedIds_.size() > 256)
        droppedIds_.pop_front();
}

void ConcurrentDecoderImpl::forgetDropped(ImageOutcome& outcome) const
{
    if (droppedIds_.empty())
        return;
    auto dropped = [this](quint64 id) { return std::find(droppedIds_.begin(), droppedIds_.end(), id) != droppedIds_.end(); };
    for (int i = outcome.frames.size() - 1; i >= 0; --i)
        if (dropped(outcome.frames.at(i).id()))
            outcome.frames.removeAt(i);
    for (int i = outcome.ended.size() - 1; i >= 0; --i)
        if (dropped(outcome.ended.at(i).imageId()))
            outcome.ended.removeAt(i);
}

void ConcurrentDecoderImpl::emitDrained(const ImageOutcome& outcome)
{
    // A drain that failed half-way still delivers what it got.
    if (outcome.errorCode)
        decodingError(DecoderError(outcome.errorCode));
    decodedFrames_ += quint64(outcome.frames.size());
    drainDone(outcome.frames);
    for (const DecoderError& ended : outcome.ended)
        decodingError(ended);
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

void ConcurrentDecoderImpl::notePath(const DecodingPath& path)
{
    if (path == path_)
        return;
    path_ = path;
    emit decodingPathChanged(path);
}

int ConcurrentDecoderImpl::decodeScheduledImage(Image&)
{
    return sequence_->isDecoding() ? 1 : 0;
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
    // One decoder per stream, which may already be a share of the whole pool.
    QThreadPool* pool = QThreadPool::globalInstance();
    return pool->maxThreadCount() <= 1 || pool->activeThreadCount() >= pool->maxThreadCount();
}

bool ConcurrentDecoderImpl::lastDecodingPending() const
{
    return runningSerial_ != 0 || sequence_->isDecoding();
}

QFuture<VideoFrame> ConcurrentDecoderImpl::lastDecodingImage() const
{
    return sequence_->currentFuture();
}

quint64 ConcurrentDecoderImpl::lastDecodingImageId() const { return lastImageId_; }

quint64 ConcurrentDecoderImpl::lastDecodingImageTime() const { return quint64(lastImageTime_); }

int ConcurrentDecoderImpl::pendingDecodings() const { return runningSerial_ != 0 ? 1 : 0; }

int ConcurrentDecoderImpl::pendingCanceledDecodings() const { return sequence_->isDecodingStale(epoch_) ? 1 : 0; }

void ConcurrentDecoderImpl::cancelAllPendingDecodings()
{
    ++epoch_;
    sequence_->setEpoch(epoch_);
    if (runningSerial_ != 0) {
        // Granted but not yet taken by the pool: it must not start after the cancel (a
        // blocking clear would return with it still to run).
        sequence_->withdraw(runningSerial_);
        drop(accepted_.front());
        accepted_.pop_front();
        runningSerial_ = 0;
    }
}

void ConcurrentDecoderImpl::clearBacklog()
{
    const quint64 keep = runningSerial_;
    for (auto it = accepted_.begin(); it != accepted_.end();) {
        if (it->serial == keep) {
            ++it;
            continue;
        }
        drop(*it);
        it = accepted_.erase(it);
    }
    sequence_->dropQueued(keep);
}

int ConcurrentDecoderImpl::backlogCount() const { return int(accepted_.size()) - (runningSerial_ != 0 ? 1 : 0); }

const ConcurrentDecoderImpl::Accepted* ConcurrentDecoderImpl::backlogFront() const
{
    return backlogCount() > 0 ? &accepted_[runningSerial_ != 0 ? 1 : 0] : nullptr;
}

Image ConcurrentDecoderImpl::lastBacklogImage() const { return backlogCount() > 0 ? accepted_.back().image : Image(); }

quint64 ConcurrentDecoderImpl::oldestBacklogImageId() const
{
    const Accepted* first = backlogFront();
    return first ? first->image.id() : 0;
}

quint64 ConcurrentDecoderImpl::oldestBacklogImageTime() const
{
    const Accepted* first = backlogFront();
    return first ? quint64(first->image.time()) : 0;
}

int ConcurrentDecoderImpl::backlogSize() const { return backlogCount(); }

void ConcurrentDecoderImpl::setScaleLevel(int level)
{
    scaleLevel_ = level;
    sequence_->setScaleLevel(level);
}

void ConcurrentDecoderImpl::setMaxOutputSize(const QSize& size)
{
    maxOutputSize_ = size.isEmpty() ? QSize() : size;
    sequence_->setMaxOutputSize(maxOutputSize_);
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

void ConcurrentDecoderImpl::waitForAllFinished() { sequence_->waitCurrent(); }

void ConcurrentDecoderImpl::waitForAnyFinished() { sequence_->waitCurrent(); }

void ConcurrentDecoderImpl::waitForLastFinished() { sequence_->waitCurrent(); }

}  // namespace orvo
