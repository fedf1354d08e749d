#include "orvo/concurrent_decoder.h"

namespace orvo {

ConcurrentDecoder::ConcurrentDecoder(QObject* parent) : ConcurrentDecoder(new ConcurrentDecoderImpl(nullptr), parent) {}

ConcurrentDecoder::ConcurrentDecoder(ConcurrentDecoderImpl* impl, QObject* parent) : AsyncDecoder(impl)
{
    // The implementation is owned by the shared pointer alone (a QObject parent would be
    // a second owner); the parent takes this handle instead.
    setParent(parent);
    impl->setWeakPointerToThis(qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface()));
}

ConcurrentDecoder::~ConcurrentDecoder()
{
    if (ConcurrentDecoderImpl* impl = getImplementation()) {
        impl->cancelAllPendingDecodings();
        impl->waitForAllFinished();
    }
}

// The one place that knows the interface of this handle is a ConcurrentDecoderImpl (the
// constructors make it so); every forwarder goes through it.
ConcurrentDecoderImpl* ConcurrentDecoder::getImplementation() const
{
    return static_cast<ConcurrentDecoderImpl*>(getInterface());
}

int ConcurrentDecoder::inputQueueMaxSize()
{
    ConcurrentDecoderImpl* const impl = getImplementation();
    return impl ? impl->inputQueueMaxSize() : 0;
}

void ConcurrentDecoder::setInputQueueMaxSize(int size)
{
    if (ConcurrentDecoderImpl* const impl = getImplementation())
        impl->setInputQueueMaxSize(size);
}

void ConcurrentDecoder::clearInputQueueOnIFrames()
{
    if (ConcurrentDecoderImpl* const impl = getImplementation())
        impl->setClearInputQueueOnIFrames(true);
}

void ConcurrentDecoder::keepInputQueueOnIFrames()
{
    if (ConcurrentDecoderImpl* const impl = getImplementation())
        impl->setClearInputQueueOnIFrames(false);
}

bool ConcurrentDecoder::isInputQueueClearedOnIFrames()
{
    ConcurrentDecoderImpl* const impl = getImplementation();
    return impl && impl->isInputQueueClearedOnIFrames();
}

void ConcurrentDecoder::useSingleThreadedMode()
{
    if (ConcurrentDecoderImpl* const impl = getImplementation())
        impl->setSingleThreadedMode(true);
}

void ConcurrentDecoder::useMultiThreadedMode()
{
    if (ConcurrentDecoderImpl* const impl = getImplementation())
        impl->setSingleThreadedMode(false);
}

bool ConcurrentDecoder::isSingleThreadedMode()
{
    ConcurrentDecoderImpl* const impl = getImplementation();
    return impl && impl->isSingleThreadedMode();
}

void ConcurrentDecoder::setWaveletScaleLevel(int level)
{
    if (ConcurrentDecoderImpl* const impl = getImplementation())
        impl->setScaleLevel(level);
}

int ConcurrentDecoder::waveletScaleLevel()
{
    ConcurrentDecoderImpl* const impl = getImplementation();
    return impl ? impl->scaleLevel() : 0;
}

void ConcurrentDecoder::setDecodeIFramesOnly(bool on)
{
    if (ConcurrentDecoderImpl* const impl = getImplementation())
        impl->setDecodeIFramesOnly(on);
}

bool ConcurrentDecoder::isDecodeIFramesOnly()
{
    ConcurrentDecoderImpl* const impl = getImplementation();
    return impl && impl->isDecodeIFramesOnly();
}

quint64 ConcurrentDecoder::droppedImages()
{
    ConcurrentDecoderImpl* const impl = getImplementation();
    return impl ? impl->droppedImages() : 0;
}

int ConcurrentDecoder::drain()
{
    ConcurrentDecoderImpl* const impl = getImplementation();
    return impl ? impl->drain() : 0;
}

quint64 ConcurrentDecoder::decodedFrames()
{
    ConcurrentDecoderImpl* const impl = getImplementation();
    return impl ? impl->decodedFrames() : 0;
}

OrderedConcurrentDecoder::OrderedConcurrentDecoder(QObject* parent)
    : ConcurrentDecoder(new OrderedConcurrentDecoderImpl(nullptr), parent)
{
}

OrderedConcurrentDecoder::~OrderedConcurrentDecoder() = default;

quint64 OrderedConcurrentDecoder::generateNextFrameId()
{
    // The ordered handle is always made over the ordered implementation.
    auto* const impl = static_cast<OrderedConcurrentDecoderImpl*>(getImplementation());
    return impl ? impl->generateNextFrameId() : 0;
}

}  // namespace orvo
