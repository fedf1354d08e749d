#pragma once
// Wakes the thread that owns pooled decoders when their results wait for it.
//
// One event counter and one notifier per owner thread, shared by every stream the thread
// owns: its event loop watches one descriptor however many cameras it shows, and one
// wake-up hands over the results of every stream that has some. A sleeping thread's
// wake-up is the dearest part of handing a picture over (tens of microseconds of CPU on a
// virtual machine), so it is paid once per burst of results, not once per picture.
//
// A pool thread may hold a wake-up back while the burst goes on: more granted work waits, or
// another pool thread still decodes an image of it (the pictures of one burst are then
// handed over together). Never longer than kHoldLimit: a timer of the owner's own event
// loop ends the wait in time whatever the pool does. The run that ends the burst (nothing of
// it left granted or decoding, only work queued more than StreamLine::kSameBurst after its
// own) wakes every owner held back at once, so the last picture of a burst, the one a wall
// waits for, is never held.
//
// Threads: forCurrentThread and release on the owner thread; announce and releaseHeld on
// any thread.
#include <QObject>

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

namespace orvo {

class StreamSequence;

class OwnerWakeup : public std::enable_shared_from_this<OwnerWakeup> {
public:
    // The longest a held wake-up waits for the rest of its burst: a tenth of a frame
    // interval at 25 fps, below a display's refresh. Each owner wake-up inside a burst
    // preempts a decoding pool thread; at 64 x 360p, 4 ms rather than 2 ms halves them and
    // saves about 1 % of the CPU.
    static constexpr std::chrono::microseconds kHoldLimit{4000};

    // The wake-up of the calling thread, made on first use; each call counts one user,
    // who gives it back with release() on this thread.
    static std::shared_ptr<OwnerWakeup> forCurrentThread();
    ~OwnerWakeup();

    // The last user gone, the notifier goes with it (owner thread).
    void release();

    // `sequence` has results for the owner. With `hold`, the wake-up may wait for
    // releaseHeld(); without, the owner wakes now (unless a wake-up is already on its way).
    void announce(const std::weak_ptr<StreamSequence>& sequence, bool hold);

    // Pool threads, at the end of a burst: wakes every owner held back.
    static void releaseHeld();

private:
    OwnerWakeup() = default;
    void deliver();        // owner thread: hands the ready streams their results
    static void deliverIfAlive(const std::weak_ptr<OwnerWakeup>& weak);
    // Under mutex_: marks the owner woken; true when wakeOwner() must follow, unlocked.
    bool signalLocked();
    void wakeOwner();
    void setTimerLocked(bool armed);

    int fd_ = -1;       // event counter: wake now
    int timerFd_ = -1;  // the held wake-up's deadline; without one, nothing is held
    bool timerArmed_ = false;
    QObject* host_ = nullptr;  // owner thread; holds the notifier, or takes posted wake-ups
    std::mutex mutex_;
    int users_ = 0;
    bool signalled_ = false;  // a wake-up is on its way
    bool held_ = false;       // results wait for releaseHeld
    std::vector<std::weak_ptr<StreamSequence>> ready_;
};

}  // namespace orvo
