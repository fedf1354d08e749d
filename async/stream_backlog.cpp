#include "async/stream_backlog.h"

#include <algorithm>

namespace orvo {

namespace {
bool isDrainRequest(const Image& image) { return image.payloadSize() == 0; }
}  // namespace

quint64 StreamBacklog::append(const Image& image)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const quint64 serial = nextSerial_++;
    entries_.append({image, serial, false});
    return serial;
}

int StreamBacklog::size() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return entries_.size();
}

Image StreamBacklog::first() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return entries_.isEmpty() ? Image() : entries_.first().image;
}

Image StreamBacklog::last() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return entries_.isEmpty() ? Image() : entries_.last().image;
}

bool StreamBacklog::takeFirst(Image& image, quint64& serial)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (entries_.isEmpty())
        return false;
    const Entry entry = entries_.takeFirst();
    image = entry.image;
    serial = entry.serial;
    return true;
}

void StreamBacklog::clear(int& dropped)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    dropped = 0;
    for (const Entry& entry : qAsConst(entries_)) {
        dropped += isDrainRequest(entry.image) ? 0 : 1;
        if (entry.taken)
            removedTaken_.append(entry.serial);
    }
    entries_.clear();
}

void StreamBacklog::removeTaken(Serials& removed)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    removed.clear();
    for (int i = 0; i < entries_.size();) {
        if (entries_.at(i).taken) {
            removed.append(entries_.at(i).serial);
            removedTaken_.append(entries_.at(i).serial);
            entries_.removeAt(i);
        } else {
            ++i;
        }
    }
    std::sort(removedTaken_.begin(), removedTaken_.end());
}

bool StreamBacklog::advance(quint64 done, quint64& runningId, qint64& runningTime, Serials& removed)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    removed.clear();
    while (!entries_.isEmpty() && entries_.first().taken && entries_.first().serial <= done)
        removed.append(entries_.takeFirst().serial);
    if (entries_.isEmpty() || !entries_.first().taken)
        return false;
    const Entry entry = entries_.takeFirst();
    removed.append(entry.serial);
    runningId = entry.image.id();
    runningTime = entry.image.time();
    return true;
}

bool StreamBacklog::wasRemoved(quint64 serial)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    while (!removedTaken_.isEmpty() && removedTaken_.first() < serial)
        removedTaken_.removeFirst();
    return !removedTaken_.isEmpty() && removedTaken_.first() == serial;
}

bool StreamBacklog::takeNext(Image& image, quint64& serial)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    for (Entry& entry : entries_) {
        if (entry.taken)
            continue;
        // A drain request ends the job: the owner starts it after every image before it.
        if (isDrainRequest(entry.image))
            return false;
        entry.taken = true;
        image = entry.image;
        serial = entry.serial;
        return true;
    }
    return false;
}

}  // namespace orvo
