#include "orvo/concurrent_decoder_impl.h"

#include <limits>

namespace orvo {

OrderedConcurrentDecoderImpl::OrderedConcurrentDecoderImpl(QObject* parent) : ConcurrentDecoderImpl(parent) {}

OrderedConcurrentDecoderImpl::~OrderedConcurrentDecoderImpl() = default;

void OrderedConcurrentDecoderImpl::frameFinished(const VideoFrame& frame)
{
    place({frame.id(), {frame}});
}

void OrderedConcurrentDecoderImpl::imageDone(quint64 imageId, const QList<VideoFrame>& frames)
{
    place({imageId, frames});
}

void OrderedConcurrentDecoderImpl::drainDone(const QList<VideoFrame>& frames)
{
    // The end of the stream: nothing further is waited for.
    flushWaiting();
    for (const VideoFrame& frame : frames)
        emitFrame(frame);
}

void OrderedConcurrentDecoderImpl::release(const Waiting& entry)
{
    lastEmittedId_ = entry.id;
    for (const VideoFrame& frame : entry.frames)
        emitFrame(frame);
}

void OrderedConcurrentDecoderImpl::flushWaiting()
{
    while (!waitingFrames_.isEmpty())
        release(waitingFrames_.takeFirst());
    lastEmittedId_ = 0;
}

void OrderedConcurrentDecoderImpl::place(const Waiting& entry)
{
    const quint64 id = entry.id;
    // Saturating: ids near the top of the range must not wrap the window to the bottom.
    const quint64 window = lastEmittedId_ > std::numeric_limits<quint64>::max() - reorderLimit_
                               ? std::numeric_limits<quint64>::max()
                               : lastEmittedId_ + reorderLimit_;
    if (id > window)
        flushWaiting();  // too far ahead: give up waiting for the missing ids
    if (lastEmittedId_ == 0 || lastEmittedId_ + 1 == id) {
        release(entry);
        // Drain the successors; stop at a gap (the flush above bridges it later).
        while (!waitingFrames_.isEmpty() && waitingFrames_.first().id == lastEmittedId_ + 1)
            release(waitingFrames_.takeFirst());
        return;
    }
    int pos = 0;
    while (pos < waitingFrames_.size() && waitingFrames_.at(pos).id <= id)
        ++pos;
    waitingFrames_.insert(pos, entry);
}

void OrderedConcurrentDecoderImpl::emitFrame(const VideoFrame& frame)
{
    emit frameDecoded(frame);
}

}  // namespace orvo
