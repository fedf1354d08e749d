#include "async/stream_sequence.h"

#include "async/decode_scheduler.h"
#include "async/owner_wakeup.h"
#include "orvo/log.h"

#include <QThread>

#include <algorithm>

namespace orvo {
namespace {

LogCategory sequenceLog("orvo.async.decoder");
// Results wait this long only for an owner thread without a running event loop (or one
// that is blocked).
constexpr auto kOwnerLate = std::chrono::seconds(2);

void warnOwnerLate()
{
    olog(sequenceLog, LOG_WARNING, "orvo::ConcurrentDecoderImpl::decode",
         "Decoded pictures have waited more than 2 s for the thread that owns the decoder: that thread runs "
         "no Qt event loop (or it is blocked), so frameDecoded and error cannot be delivered. Create and use "
         "pooled decoders on a thread that runs QCoreApplication::exec() or a QEventLoop.");
}

}  // namespace

StreamSequence::StreamSequence(QObject* owner, std::function<void()> wake)
    : wakeup_(OwnerWakeup::forCurrentThread()),
      owner_(owner),
      wake_(std::move(wake)),
      decoder_(std::make_unique<ImageDecoder>())
{
}

StreamSequence::~StreamSequence() = default;

void StreamSequence::deliver()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (closed_)
            return;
    }
    // An owner moved to another thread takes its results there.
    if (owner_->thread() != QThread::currentThread())
        QMetaObject::invokeMethod(owner_, wake_, Qt::QueuedConnection);
    else
        wake_();
}

bool StreamSequence::append(SequenceWork work)
{
    work.queued = std::chrono::steady_clock::now();
    const auto queued = work.queued;
    std::unique_lock<std::mutex> lock(mutex_);
    if (closed_)
        return false;
    inbox_.push_back(std::move(work));
    const bool late = ownerLateLocked();
    if (state_ != State::Idle) {
        lock.unlock();
        if (late)
            warnOwnerLate();
        return false;  // a run is on its way or going: it takes the work in turn
    }
    state_ = State::Requested;
    lock.unlock();
    if (late)
        warnOwnerLate();
    return DecodeScheduler::instance()->request(shared_from_this(), queued);
}

void StreamSequence::setEpoch(quint64 epoch)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    epoch_ = epoch;
}

void StreamSequence::setScaleLevel(int level)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    scale_ = level;
}

void StreamSequence::setMaxOutputSize(const QSize& size)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    outputSize_ = size;
}

int StreamSequence::dropQueued(quint64 keep)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    int images = 0;
    for (auto it = inbox_.begin(); it != inbox_.end();) {
        if (it->serial > keep) {
            images += it->drain ? 0 : 1;
            it = inbox_.erase(it);
        } else {
            ++it;
        }
    }
    return images;
}

bool StreamSequence::withdraw(quint64 serial)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto it =
        std::find_if(inbox_.begin(), inbox_.end(), [serial](const SequenceWork& w) { return w.serial == serial; });
    if (it == inbox_.end())
        return false;
    inbox_.erase(it);
    return true;
}

bool StreamSequence::take(SequenceResult& result)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (outbox_.empty())
        return false;
    result = std::move(outbox_.front());
    outbox_.pop_front();
    return true;
}

void StreamSequence::close()
{
    std::unique_lock<std::mutex> lock(mutex_);
    closed_ = true;
    inbox_.clear();
    outbox_.clear();
    std::shared_ptr<OwnerWakeup> wakeup = std::move(wakeup_);
    lock.unlock();
    if (wakeup)
        wakeup->release();  // owner thread, before the owner goes
    DecodeScheduler::instance()->forget(this);
    lock.lock();
    changed_.wait(lock, [this] { return !decoding_; });
}

void StreamSequence::waitCurrent()
{
    std::unique_lock<std::mutex> lock(mutex_);
    const quint64 taken = takenCount_;
    changed_.wait(lock, [&] { return !decoding_ || takenCount_ != taken; });
}

void StreamSequence::waitIdle()
{
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || (inbox_.empty() && !decoding_); });
}

bool StreamSequence::isDecoding() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return decoding_;
}

bool StreamSequence::isDecodingStale(quint64 epoch) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return decoding_ && decodingEpoch_ != epoch;
}

QFuture<VideoFrame> StreamSequence::currentFuture()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!decoding_) {
        QFutureInterface<VideoFrame> done;
        done.reportStarted();
        done.reportFinished();
        return done.future();
    }
    // Made only when asked for: the common path pays nothing for it.
    if (!futureMade_) {
        future_ = QFutureInterface<VideoFrame>();
        future_.reportStarted();
        futureMade_ = true;
    }
    return future_.future();
}

bool StreamSequence::post(SequenceResult result)
{
    if (closed_)
        return false;
    const bool wasEmpty = outbox_.empty();
    if (wasEmpty)
        outboxSince_ = std::chrono::steady_clock::now();
    outbox_.push_back(std::move(result));
    return wasEmpty;  // one announcement per batch: the owner takes results until none is left
}

bool StreamSequence::ownerLateLocked()
{
    if (warnedOwnerLate_ || outbox_.empty() || std::chrono::steady_clock::now() - outboxSince_ < kOwnerLate)
        return false;
    warnedOwnerLate_ = true;
    return true;
}

void StreamSequence::run()
{
    DecodeScheduler* const scheduler = DecodeScheduler::instance().data();
    std::unique_lock<std::mutex> lock(mutex_);
    bool late = false;
    // The owner to tell of new results, told with no lock held: a woken owner that found
    // this sequence locked would only sleep again until the run let go. The wake-up is held
    // back only while the pool goes on with work of the same burst (queued within
    // StreamLine::kSameBurst of the last result's image): the last picture of a burst, the
    // one a wall waits for, is handed over at once even when the next burst is already
    // queued (as when a burst of I-frames runs into the next due time).
    std::shared_ptr<OwnerWakeup> announce;
    std::chrono::steady_clock::time_point lastQueued;  // of the image whose result came last
    const auto sameBurst = [&lastQueued](std::chrono::steady_clock::time_point next) {
        return next - lastQueued <= StreamLine::kSameBurst;
    };
    state_ = State::Running;
    for (;;) {
        if (closed_ || inbox_.empty())
            break;
        SequenceWork work = std::move(inbox_.front());
        inbox_.pop_front();
        setImageInRun(work.queued);
        decoding_ = true;
        decodingEpoch_ = epoch_;
        ++takenCount_;
        const int scale = scale_;
        const QSize outputSize = outputSize_;
        lock.unlock();
        // This stream's next image follows at once: within a burst the owner may take both
        // results together.
        const bool burstGoesOn = lastQueued == std::chrono::steady_clock::time_point() || sameBurst(work.queued);
        if (announce) {
            announce->announce(weak_from_this(), burstGoesOn);
            announce.reset();
        } else if (!burstGoesOn) {
            OwnerWakeup::releaseHeld();  // results of the ended burst wait in a held batch
        }

        // The decoder is this run's alone until the lock is taken again.
        SequenceResult result;
        if (decoder_->maxOutputSize() != outputSize)
            decoder_->setMaxOutputSize(outputSize);
        if (work.drain) {
            result.outcome = decoder_->drainAll();
        } else {
            decoder_->decode(work.image, decoder_->formatDecoder(), nullptr, scale);
            result.outcome = decoder_->takeOutcome();
        }

        lock.lock();
        decoding_ = false;
        result.serial = work.serial;
        result.epoch = decodingEpoch_;
        result.drain = work.drain;
        if (futureMade_) {
            future_.reportResult(result.outcome.frames.isEmpty() ? VideoFrame() : result.outcome.frames.first());
            future_.reportFinished();
            futureMade_ = false;
        }
        // Go on with the next work unless another stream waits for a pool thread. Decided
        // and taken under one lock, so the owner learns with this result what runs now.
        const bool goOn = !closed_ && !inbox_.empty() && !scheduler->othersWaiting();
        result.nextSerial = goOn ? inbox_.front().serial : 0;
        lastQueued = work.queued;
        if (post(std::move(result)))
            announce = wakeup_;
        late = ownerLateLocked() || late;
        changed_.notify_all();
        if (!goOn)
            break;
    }
    setImageInRun({});
    const bool again = !closed_ && !inbox_.empty();
    const auto againSince = again ? inbox_.front().queued : std::chrono::steady_clock::time_point();
    state_ = again ? State::Requested : State::Idle;
    changed_.notify_all();
    lock.unlock();
    if (late)
        warnOwnerLate();
    const DecodeScheduler::Finished finished = scheduler->finish(shared_from_this(), again, againSince);
    // While the pool goes on with work of this burst (granted, or decoding on another
    // thread), the owner's wake-up may wait for the rest of it; the run that ends the burst
    // wakes every owner held back.
    const bool burstGoesOn = finished.poolBusy && sameBurst(finished.nextSince);
    if (announce)
        announce->announce(weak_from_this(), burstGoesOn);
    if (!burstGoesOn)
        OwnerWakeup::releaseHeld();
}

}  // namespace orvo
