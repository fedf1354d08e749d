#include "async/decode_scheduler.h"

#include "async/stream_sequence.h"

#include <QThreadPool>
#include <algorithm>

namespace orvo {

QSharedPointer<DecodeScheduler> DecodeScheduler::instance()
{
    static QSharedPointer<DecodeScheduler> scheduler = QSharedPointer<DecodeScheduler>::create();
    return scheduler;
}

bool DecodeScheduler::request(const std::shared_ptr<StreamSequence>& sequence)
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (held_ >= std::max(1, QThreadPool::globalInstance()->maxThreadCount())) {
            waiting_.push_back(sequence);
            othersWaiting_.store(true, std::memory_order_relaxed);
            return false;
        }
        ++held_;
    }
    start(sequence);
    return true;
}

void DecodeScheduler::finish(const std::shared_ptr<StreamSequence>& again)
{
    std::shared_ptr<StreamSequence> next;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (again)
            waiting_.push_back(again);
        if (!waiting_.empty()) {
            next = std::move(waiting_.front());  // the permit passes on
            waiting_.pop_front();
        } else {
            --held_;
        }
        othersWaiting_.store(!waiting_.empty(), std::memory_order_relaxed);
    }
    if (next)
        start(std::move(next));
}

void DecodeScheduler::forget(const StreamSequence* sequence)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(),
                                  [sequence](const auto& s) { return s.get() == sequence; }),
                   waiting_.end());
    othersWaiting_.store(!waiting_.empty(), std::memory_order_relaxed);
}

void DecodeScheduler::start(std::shared_ptr<StreamSequence> sequence)
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ready_.push_back(std::move(sequence));
    }
    // The sequence travels through ready_, under the standard mutex, rather than inside the
    // pool's task: the pool's own queue is locked where race checkers cannot see.
    QThreadPool::globalInstance()->start(&DecodeScheduler::runNext);
}

void DecodeScheduler::runNext()
{
    DecodeScheduler* const self = instance().data();
    std::shared_ptr<StreamSequence> sequence;
    {
        const std::lock_guard<std::mutex> lock(self->mutex_);
        if (self->ready_.empty())
            return;
        sequence = std::move(self->ready_.front());
        self->ready_.pop_front();
    }
    sequence->run();
}

int DecodeScheduler::inFlight() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return held_;
}

int DecodeScheduler::scheduledCount() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return int(waiting_.size());
}

}  // namespace orvo
