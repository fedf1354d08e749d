#include "async/owner_wakeup.h"

#include "async/stream_sequence.h"

#include <QSocketNotifier>
#include <functional>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace orvo {
namespace {

// Owners whose wake-up a pool thread holds back.
struct HeldOwners {
    std::mutex mutex;
    std::vector<std::weak_ptr<OwnerWakeup>> owners;
};

// Calls `deliver` on the owner thread whenever `fd` becomes readable, after reading it.
void watch(int fd, QObject* host, std::function<void()> deliver)
{
    auto* notifier = new QSocketNotifier(fd, QSocketNotifier::Read, host);
    QObject::connect(notifier, &QSocketNotifier::activated, host, [fd, deliver = std::move(deliver)] {
        quint64 count = 0;
        if (::read(fd, &count, sizeof count) < 0) {
            // Nothing to reset: the counter was already read.
        }
        deliver();
    });
}

HeldOwners& heldOwners()
{
    static HeldOwners* held = new HeldOwners;  // pool threads may use it up to the end
    return *held;
}

}  // namespace

std::shared_ptr<OwnerWakeup> OwnerWakeup::forCurrentThread()
{
    thread_local std::weak_ptr<OwnerWakeup> current;
    if (std::shared_ptr<OwnerWakeup> wakeup = current.lock()) {
        const std::lock_guard<std::mutex> lock(wakeup->mutex_);
        if (wakeup->users_ > 0) {
            ++wakeup->users_;
            return wakeup;
        }
    }
    std::shared_ptr<OwnerWakeup> wakeup(new OwnerWakeup);
    wakeup->users_ = 1;
    wakeup->host_ = new QObject;
    auto deliver = [weak = std::weak_ptr<OwnerWakeup>(wakeup)] { deliverIfAlive(weak); };
    // Without a counter (the process is out of descriptors) wake-ups are posted events.
    wakeup->fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeup->fd_ >= 0)
        watch(wakeup->fd_, wakeup->host_, deliver);
    wakeup->timerFd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (wakeup->timerFd_ >= 0)
        watch(wakeup->timerFd_, wakeup->host_, deliver);
    current = wakeup;
    return wakeup;
}

OwnerWakeup::~OwnerWakeup()
{
    // The notifier went with the last user (release, on the owner thread).
    if (fd_ >= 0)
        ::close(fd_);
    if (timerFd_ >= 0)
        ::close(timerFd_);
}

void OwnerWakeup::release()
{
    QObject* host = nullptr;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (--users_ > 0)
            return;
        host = host_;
        host_ = nullptr;
        ready_.clear();
    }
    delete host;  // owner thread: the notifier with it
}

void OwnerWakeup::announce(const std::weak_ptr<StreamSequence>& sequence, bool hold)
{
    bool wake = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (users_ == 0)
            return;
        ready_.push_back(sequence);
        if (signalled_)
            return;  // the owner takes this one with the others
        if (!hold || timerFd_ < 0) {
            wake = signalLocked();
        } else if (!held_) {
            held_ = true;
            setTimerLocked(true);
        } else {
            return;
        }
    }
    if (wake) {
        wakeOwner();
        return;
    }
    HeldOwners& held = heldOwners();
    const std::lock_guard<std::mutex> lock(held.mutex);
    held.owners.push_back(weak_from_this());
}

void OwnerWakeup::releaseHeld()
{
    HeldOwners& held = heldOwners();
    std::vector<std::weak_ptr<OwnerWakeup>> due;
    {
        const std::lock_guard<std::mutex> lock(held.mutex);
        if (held.owners.empty())
            return;
        due.swap(held.owners);
    }
    for (const std::weak_ptr<OwnerWakeup>& weak : due) {
        const std::shared_ptr<OwnerWakeup> owner = weak.lock();
        if (!owner)
            continue;
        bool wake = false;
        {
            const std::lock_guard<std::mutex> lock(owner->mutex_);
            if (owner->held_ && !owner->signalled_ && owner->users_ > 0)
                wake = owner->signalLocked();
        }
        if (wake)
            owner->wakeOwner();
    }
}

void OwnerWakeup::setTimerLocked(bool armed)
{
    if (timerArmed_ == armed)
        return;
    itimerspec spec{};
    if (armed)
        spec.it_value.tv_nsec = std::chrono::duration_cast<std::chrono::nanoseconds>(kHoldLimit).count();
    timerfd_settime(timerFd_, 0, &spec, nullptr);
    timerArmed_ = armed;
}

bool OwnerWakeup::signalLocked()
{
    signalled_ = true;
    held_ = false;
    setTimerLocked(false);
    if (fd_ >= 0)
        return true;
    // host_ is deleted on the owner thread only after users_ fell to 0 under this mutex.
    QMetaObject::invokeMethod(host_, [weak = weak_from_this()] { deliverIfAlive(weak); }, Qt::QueuedConnection);
    return false;
}

void OwnerWakeup::wakeOwner()
{
    // Outside the mutex: the woken owner takes it at once, and would otherwise find it held
    // by a thread it just preempted.
    const quint64 one = 1;
    if (::write(fd_, &one, sizeof one) < 0) {
        // The counter is already far above zero: the owner wakes anyway.
    }
}

void OwnerWakeup::deliverIfAlive(const std::weak_ptr<OwnerWakeup>& weak)
{
    // Alive to the end of a delivery, even if a handler releases the last user.
    if (const std::shared_ptr<OwnerWakeup> self = weak.lock())
        self->deliver();
}

void OwnerWakeup::deliver()
{
    std::vector<std::weak_ptr<StreamSequence>> ready;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ready.swap(ready_);
        signalled_ = false;
        held_ = false;
        setTimerLocked(false);  // woken by the deadline, or before it by other results
    }
    // A handler may close streams (or every stream) of this thread: each is checked as it
    // comes.
    for (const std::weak_ptr<StreamSequence>& weak : ready)
        if (const std::shared_ptr<StreamSequence> sequence = weak.lock())
            sequence->deliver();
}

}  // namespace orvo
