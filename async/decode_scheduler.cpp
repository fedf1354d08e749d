#include "async/decode_scheduler.h"

#include <QThreadPool>
#include <QVarLengthArray>

#include <algorithm>

namespace orvo {

std::atomic<bool> DecodeScheduler::othersWaiting_{false};

QSharedPointer<DecodeScheduler> DecodeScheduler::instance()
{
    static QSharedPointer<DecodeScheduler> scheduler = QSharedPointer<DecodeScheduler>::create();
    return scheduler;
}

void DecodeScheduler::schedule(const WeakAsyncDecoder& decoder, const void* owner, const Image& image, quint64 serial)
{
    auto entry = QSharedPointer<ScheduledImage>::create();
    entry->decoder = decoder;
    entry->owner = owner;
    entry->image = WeakImage(image);
    entry->imageId = image.id();
    entry->serial = serial;
    list_.append(entry);
}

void DecodeScheduler::forget(const void* owner)
{
    for (int i = list_.size() - 1; i >= 0; --i) {
        if (list_.at(i)->owner == owner)
            list_.removeAt(i);
    }
}

void DecodeScheduler::forget(const void* owner, quint64 serial)
{
    for (int i = 0; i < list_.size(); ++i) {
        if (list_.at(i)->owner == owner && list_.at(i)->serial == serial) {
            list_.removeAt(i);
            return;
        }
    }
}

int DecodeScheduler::submit()
{
    // Starting a job never emits, so submit() is not re-entered; guard anyway, since a
    // nested walk would invalidate the outer one.
    if (submitting_)
        return 0;
    submitting_ = true;
    QThreadPool* pool = QThreadPool::globalInstance();
    int count = 0;
    bool starving = false;
    // Decoders found busy in this call: their further entries are passed over without
    // looking them up again (a long backlog would make every call quadratic).
    QVarLengthArray<const void*, 8> busy;
    while (!list_.isEmpty()) {
        // The oldest entry whose decoder is alive and idle; dead entries are dropped,
        // busy decoders keep their place.
        QSharedPointer<SignaledAsyncDecoderInterface> decoder;
        Image image;
        int i = 0;
        while (i < list_.size()) {
            const QSharedPointer<ScheduledImage>& entry = list_.at(i);
            if (std::find(busy.begin(), busy.end(), entry->owner) != busy.end()) {
                ++i;
                continue;
            }
            decoder = entry->decoder.toStrongRef();
            image = entry->image.toStrong();
            if (!decoder || image.isNull()) {
                list_.removeAt(i);
                continue;
            }
            if (decoder->isBusy()) {
                busy.append(entry->owner);
                ++i;
                continue;
            }
            break;
        }
        if (i >= list_.size())
            break;
        const int active = pool->activeThreadCount();
        const int max = pool->maxThreadCount();
        if (active >= max && inFlight_ > qMax(1, max / 2)) {
            starving = true;  // an idle stream waits for the pool
            count = 0;
            break;
        }
        list_.removeAt(i);
        auto* scheduled = qobject_cast<ScheduledAsyncDecoderInterface*>(decoder.data());
        if (scheduled && scheduled->decodeScheduledImage(image) > 0) {
            ++inFlight_;
            ++count;
        }
    }
    othersWaiting_.store(starving, std::memory_order_relaxed);
    submitting_ = false;
    return count;
}

}  // namespace orvo
