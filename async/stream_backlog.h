#pragma once
// The backlog of one pooled stream: images queued behind the one that runs.
//
// The owner thread queues and clears; the stream's running job may take the next image
// itself (continuation) instead of returning to the owner thread between two images.
// A taken image stays in the backlog until the owner has handled the result before it,
// so what the owner sees of the backlog changes only on the owner thread: its size and
// bound behave as if every image were started from there.
#include "orvo/image.h"

#include <QList>
#include <QVarLengthArray>
#include <mutex>

namespace orvo {

class StreamBacklog {
public:
    // Owner thread.
    quint64 append(const Image& image);  // returns the image's serial (rising)
    int size() const;
    Image first() const;
    Image last() const;
    // Removes the first image (for a new job); false when empty.
    bool takeFirst(Image& image, quint64& serial);
    // Removes every image; `dropped` receives how many were images (not drain requests).
    void clear(int& dropped);
    using Serials = QVarLengthArray<quint64, 4>;
    // Removes the images a job took but whose results are not to be shown; `removed`
    // receives their serials.
    void removeTaken(Serials& removed);
    // A result of serial `done` was handled: removes taken images up to it, then the first
    // image if the job has already taken it (it is the one running now). True with the
    // running image's identity when there is one; `removed` receives every removed serial.
    bool advance(quint64 done, quint64& runningId, qint64& runningTime, Serials& removed);
    // True when the serial belongs to a taken image that was removed since (cleared, or
    // its job cancelled). Results arrive in rising serial order.
    bool wasRemoved(quint64 serial);

    // Pool thread: takes the next image that is not a drain request.
    bool takeNext(Image& image, quint64& serial);

private:
    struct Entry {
        Image image;
        quint64 serial;
        bool taken;
    };
    // A standard mutex, not QMutex: race checkers see pthread locking, not Qt's futex path.
    mutable std::mutex mutex_;
    QList<Entry> entries_;
    quint64 nextSerial_ = 1;
    // Serials of taken images that were removed: their results may still arrive, and are
    // not to be shown (rising order).
    QList<quint64> removedTaken_;
};

}  // namespace orvo
