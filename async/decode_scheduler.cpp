#include "async/decode_scheduler.h"

#include "async/stream_sequence.h"

#include <QRunnable>
#include <QThreadPool>
#include <algorithm>

namespace orvo {

namespace {
// What the pool runs: one object, started once per grant, that carries nothing. The
// sequence to run travels through the scheduler's ready line, under its standard mutex:
// the pool's own queue is locked where race checkers cannot see, so nothing written by the
// thread that starts a run may be read through it.
class PoolEntry final : public QRunnable {
public:
    PoolEntry() { setAutoDelete(false); }
    void run() override { runNext(); }
    static void runNext();
};
}  // namespace

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

bool DecodeScheduler::finish(const std::shared_ptr<StreamSequence>& again)
{
    std::shared_ptr<StreamSequence> next;
    bool busy = false;
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
        busy = next || !ready_.empty();
    }
    if (next)
        start(std::move(next));
    return busy;
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
    static PoolEntry entry;
    QThreadPool::globalInstance()->start(&entry);
}

void PoolEntry::runNext()
{
    DecodeScheduler::instance()->runReady();
}

void DecodeScheduler::runReady()
{
    std::shared_ptr<StreamSequence> sequence;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (ready_.empty())
            return;
        sequence = std::move(ready_.front());
        ready_.pop_front();
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
