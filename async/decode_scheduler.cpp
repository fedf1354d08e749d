#include "async/decode_scheduler.h"

#include "async/lock_spinning_first.h"
#include "async/stream_sequence.h"

#include <QRunnable>
#include <QThreadPool>
#include <algorithm>
#include <pthread.h>
#include <sched.h>

namespace orvo {

namespace {
// The calling thread, for as long as it lives (a later thread may get the same token: it
// is only a hint).
const void* currentThreadToken()
{
    static thread_local char token;
    return &token;
}

// A pool thread that decodes becomes a batch thread (Linux's SCHED_BATCH: the same share of
// the CPU, the same nice value), once: woken for a picture, it no longer preempts the thread
// that woke it. That is the owner (a GUI thread, or a wall's timer), which would otherwise
// stop halfway through handing out a due time's images and preempt the decoder in turn to
// finish: on two cores, 2 to 3 % of a one-stream wall's CPU and 0.5 % at 16 and 64 streams.
// Threads the client gave another policy (real-time, idle) keep it.
void markAsBatchThread()
{
#ifdef SCHED_BATCH
    thread_local bool marked = false;
    if (marked)
        return;
    marked = true;
    int policy = 0;
    sched_param param{};
    if (pthread_getschedparam(pthread_self(), &policy, &param) == 0 && policy == SCHED_OTHER)
        pthread_setschedparam(pthread_self(), SCHED_BATCH, &param);
#endif
}

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

bool DecodeScheduler::request(const std::shared_ptr<StreamSequence>& sequence,
                              std::chrono::steady_clock::time_point since)
{
    StreamLine::Entry entry;
    {
        lockSpinningFirst(mutex_);  // the owner thread, handing out a due time's images
        const std::lock_guard<std::mutex> lock(mutex_, std::adopt_lock);
        entry = {sequence, sequence->lastPoolThread, 0, since};
        if (held_ >= std::max(1, QThreadPool::globalInstance()->maxThreadCount())) {
            waiting_.push(std::move(entry));
            othersWaiting_.store(true, std::memory_order_relaxed);
            return false;
        }
        ++held_;
    }
    start(std::move(entry));
    return true;
}

DecodeScheduler::Finished DecodeScheduler::finish(const std::shared_ptr<StreamSequence>& ran, bool again,
                                                  std::chrono::steady_clock::time_point againSince)
{
    StreamLine::Entry next;
    Finished out;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const void* thread = currentThreadToken();
        if (again)
            waiting_.push({ran, thread, 0, againSince});
        if (!waiting_.empty())
            next = waiting_.take(thread, again ? ran.get() : nullptr);  // the permit passes on
        else
            --held_;
        othersWaiting_.store(!waiting_.empty(), std::memory_order_relaxed);
        // The burst goes on while granted work waits, and while another run decodes an
        // image: the owner can take this run's results with that one's. The earliest image
        // among them tells whether they belong to the same burst.
        const auto it = std::find(running_.begin(), running_.end(), ran.get());
        if (it != running_.end())
            running_.erase(it);
        using TimePoint = std::chrono::steady_clock::time_point;
        TimePoint earliest = ready_.oldest();  // the epoch: none
        const auto consider = [&earliest](TimePoint since) {
            if (since != TimePoint() && (earliest == TimePoint() || since < earliest))
                earliest = since;
        };
        if (next.sequence)
            consider(next.since);
        for (const StreamSequence* other : running_)
            consider(other->imageInRun());
        out.poolBusy = earliest != TimePoint();
        out.nextSince = earliest;
    }
    if (next.sequence)
        start(std::move(next));
    return out;
}

void DecodeScheduler::forget(const StreamSequence* sequence)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    waiting_.remove(sequence);
    othersWaiting_.store(!waiting_.empty(), std::memory_order_relaxed);
}

void DecodeScheduler::start(StreamLine::Entry entry)
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ready_.push(std::move(entry));
    }
    static PoolEntry poolEntry;
    QThreadPool::globalInstance()->start(&poolEntry);
}

void PoolEntry::runNext()
{
    markAsBatchThread();
    DecodeScheduler::instance()->runReady();
}

void DecodeScheduler::runReady()
{
    std::shared_ptr<StreamSequence> sequence;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (ready_.empty())
            return;
        // Every granted run starts at once, whichever thread takes it.
        const void* thread = currentThreadToken();
        StreamLine::Entry entry = ready_.take(thread);
        sequence = std::move(entry.sequence);
        sequence->lastPoolThread = thread;
        // Counted as decoding the image it was granted for from now on, before it takes it.
        sequence->setImageInRun(entry.since);
        running_.push_back(sequence.get());
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
