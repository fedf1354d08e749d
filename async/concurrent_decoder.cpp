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

// Forwarders: a null handle reads as defaults and ignores settings.
#define ORVO_GET(expr, fallback) \
    ConcurrentDecoderImpl* const impl = getImplementation(); \
    return impl ? impl->expr : fallback
#define ORVO_SET(expr) \
    if (ConcurrentDecoderImpl* const impl = getImplementation()) \
    impl->expr

int ConcurrentDecoder::inputQueueMaxSize() { ORVO_GET(inputQueueMaxSize(), 0); }
void ConcurrentDecoder::setInputQueueMaxSize(int size) { ORVO_SET(setInputQueueMaxSize(size)); }
void ConcurrentDecoder::clearInputQueueOnIFrames() { ORVO_SET(setClearInputQueueOnIFrames(true)); }
void ConcurrentDecoder::keepInputQueueOnIFrames() { ORVO_SET(setClearInputQueueOnIFrames(false)); }
bool ConcurrentDecoder::isInputQueueClearedOnIFrames() { ORVO_GET(isInputQueueClearedOnIFrames(), false); }
void ConcurrentDecoder::useSingleThreadedMode() { ORVO_SET(setSingleThreadedMode(true)); }
void ConcurrentDecoder::useMultiThreadedMode() { ORVO_SET(setSingleThreadedMode(false)); }
bool ConcurrentDecoder::isSingleThreadedMode() { ORVO_GET(isSingleThreadedMode(), false); }
void ConcurrentDecoder::setWaveletScaleLevel(int level) { ORVO_SET(setScaleLevel(level)); }
int ConcurrentDecoder::waveletScaleLevel() { ORVO_GET(scaleLevel(), 0); }
void ConcurrentDecoder::setMaxOutputSize(const QSize& size) { ORVO_SET(setMaxOutputSize(size)); }
QSize ConcurrentDecoder::maxOutputSize() { ORVO_GET(maxOutputSize(), QSize()); }
void ConcurrentDecoder::setDecodeIFramesOnly(bool on) { ORVO_SET(setDecodeIFramesOnly(on)); }
bool ConcurrentDecoder::isDecodeIFramesOnly() { ORVO_GET(isDecodeIFramesOnly(), false); }
DecodingPath ConcurrentDecoder::decodingPath() { ORVO_GET(decodingPath(), DecodingPath()); }
quint64 ConcurrentDecoder::droppedImages() { ORVO_GET(droppedImages(), 0); }
quint64 ConcurrentDecoder::decodedFrames() { ORVO_GET(decodedFrames(), 0); }
int ConcurrentDecoder::drain() { ORVO_GET(drain(), 0); }

#undef ORVO_GET
#undef ORVO_SET

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
