#pragma once
// ConcurrentDecoder: the public handle for decoding one camera stream on Qt's global
// thread pool. Create, use and destroy it on one thread (the one that receives its
// frameDecoded signals); all ConcurrentDecoders of a process share that thread.
//
// Destroying the handle drops the results of a running job and waits for it to end;
// images still waiting are released with the implementation.
#include "orvo/async_decoder.h"
#include "orvo/concurrent_decoder_impl.h"

namespace orvo {

class ConcurrentDecoder : public AsyncDecoder {
    Q_OBJECT
public:
    // `parent` becomes the parent of this handle (the implementation itself is owned
    // only by the handle's shared pointer).
    explicit ConcurrentDecoder(QObject* parent = nullptr);
    ~ConcurrentDecoder() override;

    int inputQueueMaxSize();
    void setInputQueueMaxSize(int size);  // stored and reported, not enforced
    void clearInputQueueOnIFrames();
    void keepInputQueueOnIFrames();
    bool isInputQueueClearedOnIFrames();
    void useSingleThreadedMode();
    void useMultiThreadedMode();
    bool isSingleThreadedMode();
    void setWaveletScaleLevel(int level);
    int waveletScaleLevel();
    void myconnect2() {}

protected:
    explicit ConcurrentDecoder(ConcurrentDecoderImpl* impl, QObject* parent);
    ConcurrentDecoderImpl* getImplementation() const;
};

class OrderedConcurrentDecoder : public ConcurrentDecoder {
    Q_OBJECT
public:
    explicit OrderedConcurrentDecoder(QObject* parent = nullptr);
    ~OrderedConcurrentDecoder() override;

    // Ids 1, 2, 3, ... for the client to stamp on its images before decode().
    quint64 generateNextFrameId();
};

}  // namespace orvo
