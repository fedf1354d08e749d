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

ConcurrentDecoderImpl* ConcurrentDecoder::getImplementation() const
{
    return static_cast<ConcurrentDecoderImpl*>(getInterface());
}

int ConcurrentDecoder::inputQueueMaxSize()
{
    const auto impl = qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface());
    return impl ? impl->inputQueueMaxSize() : 0;
}

void ConcurrentDecoder::setInputQueueMaxSize(int size)
{
    if (const auto impl = qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface()))
        impl->setInputQueueMaxSize(size);
}

void ConcurrentDecoder::clearInputQueueOnIFrames()
{
    if (const auto impl = qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface()))
        impl->setClearInputQueueOnIFrames(true);
}

void ConcurrentDecoder::keepInputQueueOnIFrames()
{
    if (const auto impl = qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface()))
        impl->setClearInputQueueOnIFrames(false);
}

bool ConcurrentDecoder::isInputQueueClearedOnIFrames()
{
    const auto impl = qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface());
    return impl && impl->isInputQueueClearedOnIFrames();
}

void ConcurrentDecoder::useSingleThreadedMode()
{
    if (const auto impl = qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface()))
        impl->setSingleThreadedMode(true);
}

void ConcurrentDecoder::useMultiThreadedMode()
{
    if (const auto impl = qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface()))
        impl->setSingleThreadedMode(false);
}

bool ConcurrentDecoder::isSingleThreadedMode()
{
    const auto impl = qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface());
    return impl && impl->isSingleThreadedMode();
}

void ConcurrentDecoder::setWaveletScaleLevel(int level)
{
    if (const auto impl = qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface()))
        impl->setScaleLevel(level);
}

int ConcurrentDecoder::waveletScaleLevel()
{
    const auto impl = qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface());
    return impl ? impl->scaleLevel() : 0;
}

void ConcurrentDecoder::setDecodeIFramesOnly(bool on)
{
    if (const auto impl = qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface()))
        impl->setDecodeIFramesOnly(on);
}

bool ConcurrentDecoder::isDecodeIFramesOnly()
{
    const auto impl = qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface());
    return impl && impl->isDecodeIFramesOnly();
}

quint64 ConcurrentDecoder::droppedImages()
{
    const auto impl = qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface());
    return impl ? impl->droppedImages() : 0;
}

int ConcurrentDecoder::drain()
{
    const auto impl = qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface());
    return impl ? impl->drain() : 0;
}

quint64 ConcurrentDecoder::decodedFrames()
{
    const auto impl = qSharedPointerObjectCast<ConcurrentDecoderImpl>(qSharedPointerInterface());
    return impl ? impl->decodedFrames() : 0;
}

OrderedConcurrentDecoder::OrderedConcurrentDecoder(QObject* parent)
    : ConcurrentDecoder(new OrderedConcurrentDecoderImpl(nullptr), parent)
{
}

OrderedConcurrentDecoder::~OrderedConcurrentDecoder() = default;

quint64 OrderedConcurrentDecoder::generateNextFrameId()
{
    const auto impl = qSharedPointerObjectCast<OrderedConcurrentDecoderImpl>(qSharedPointerInterface());
    return impl ? impl->generateNextFrameId() : 0;
}

}  // namespace orvo
