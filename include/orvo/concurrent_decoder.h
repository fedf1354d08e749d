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

class ORVO_EXPORT ConcurrentDecoder : public AsyncDecoder {
    Q_OBJECT
public:
    // `parent` becomes the parent of this handle (the implementation itself is owned
    // only by the handle's shared pointer).
    explicit ConcurrentDecoder(QObject* parent = nullptr);
    ~ConcurrentDecoder() override;

    int inputQueueMaxSize();
    // Bounds the backlog (default 2147483647, in effect none; a negative size sets no
    // bound): while it holds `size` images, images that are not I-frames are refused
    // until the next I-frame, so a stream that cannot keep up stays near live. I-frames
    // are always accepted (with clearing on, they empty the backlog first; with it off
    // they may exceed the bound by themselves).
    void setInputQueueMaxSize(int size);
    void clearInputQueueOnIFrames();
    void keepInputQueueOnIFrames();
    bool isInputQueueClearedOnIFrames();
    void useSingleThreadedMode();
    void useMultiThreadedMode();
    bool isSingleThreadedMode();
    void setWaveletScaleLevel(int level);
    int waveletScaleLevel();
    // The largest picture the client shows, e.g. its tile on a camera wall (an empty size,
    // the default, clears it): larger pictures come out scaled down to fit, decoded smaller
    // directly where the codec can (see Decoder::setMaxOutputSize). Scaling happens on the
    // pool thread; it applies to images decoded from now on.
    void setMaxOutputSize(const QSize& size);
    QSize maxOutputSize();
    // Default off. While on, decode() refuses (returns 0) every image that is not an
    // I-frame, so none reaches the pool; switching it off resumes at the next I-frame.
    void setDecodeIFramesOnly(bool on);
    bool isDecodeIFramesOnly();
    // Images refused by decode() or cleared from the backlog since construction, and
    // pictures decoded and delivered since construction.
    // Which path the stream's pictures take (software, or the GPU's video engine with
    // DecoderPreferences::setHardwareDecoding), as of the last image answered;
    // decodingPathChanged() (on the handle and the implementation) tells each change.
    DecodingPath decodingPath();
    quint64 droppedImages();
    quint64 decodedFrames();
    // End of stream: queues a job that emits every picture the decoder still holds, each
    // with its own image's identity, after the images queued before it; the decoder then
    // takes a new stream from its next I-frame. 1 when queued, 3 when done at once in
    // single-threaded mode, 0 when not accepted.
    int drain();
    void myconnect2() {}

protected:
    explicit ConcurrentDecoder(ConcurrentDecoderImpl* impl, QObject* parent);
    ConcurrentDecoderImpl* getImplementation() const;
};

class ORVO_EXPORT OrderedConcurrentDecoder : public ConcurrentDecoder {
    Q_OBJECT
public:
    explicit OrderedConcurrentDecoder(QObject* parent = nullptr);
    ~OrderedConcurrentDecoder() override;

    // Ids 1, 2, 3, ... for the client to stamp on its images before decode().
    quint64 generateNextFrameId();
};

}  // namespace orvo
