#pragma once
// The interface family of the asynchronous decoders.
//
// Images go in through InputAsyncDecoderInterface; decoded frames and errors come out
// as the Qt signals of DecoderInterfaceSignals, emitted on the thread that owns the
// decoder object. Return values of decode(const Image&) across the family:
//   1 queued for asynchronous decoding, 2 submitted to the pool, 3 decoded
//   synchronously, 0 not accepted, -1 synchronous decode failed.
#include "orvo/decoder_error.h"
#include "orvo/decoding_path.h"
#include "orvo/image.h"
#include "orvo/video_frame.h"

#include <QObject>

namespace orvo {

class ORVO_EXPORT InputAsyncDecoderInterface {
public:
    virtual int decode(const Image& image) = 0;
    virtual bool isBusy() = 0;
    virtual void reset() = 0;
    virtual ~InputAsyncDecoderInterface() = default;
};

class ORVO_EXPORT OutputAsyncDecoderInterface {
public:
    virtual void frameFinished(const VideoFrame& frame) = 0;
    virtual void decodingError(const DecoderError& error) = 0;
    virtual ~OutputAsyncDecoderInterface() = default;
};

class ORVO_EXPORT AsyncDecoderInterface : public InputAsyncDecoderInterface, public OutputAsyncDecoderInterface {
};

class ORVO_EXPORT DecoderInterfaceSignals : public QObject {
    Q_OBJECT
public:
    explicit DecoderInterfaceSignals(QObject* parent = nullptr);
    ~DecoderInterfaceSignals() override;

signals:
    void frameDecoded(const orvo::VideoFrame& videoFrame);
    void error(DecoderError err);
    // The stream's decoding path changed (see DecodingPath): its first decoded image, and
    // each switch, e.g. a stream that left the GPU's video engine for software. Emitted on
    // the owner thread before the frames decoded on the new path.
    void decodingPathChanged(const orvo::DecodingPath& path);
};

// What handles hold (by QSharedPointer): the signals plus the input side.
class ORVO_EXPORT SignaledAsyncDecoderInterface : public DecoderInterfaceSignals, public InputAsyncDecoderInterface {
    Q_OBJECT
public:
    explicit SignaledAsyncDecoderInterface(QObject* parent = nullptr) : DecoderInterfaceSignals(parent) {}
};

// A decoder that the process-wide scheduler can hand a queued image to.
class ORVO_EXPORT ScheduledAsyncDecoderInterface : public SignaledAsyncDecoderInterface {
    Q_OBJECT
public:
    explicit ScheduledAsyncDecoderInterface(QObject* parent = nullptr) : SignaledAsyncDecoderInterface(parent) {}
    // Starts decoding the decoder's next image; > 0 when a job was started.
    virtual int decodeScheduledImage(Image& image) = 0;
};

// Joins the signals with both sides: frameFinished/decodingError emit the signals.
// The input side is inherited twice (once through each base); a concrete class
// overrides decode/isBusy/reset once, which serves both.
class ORVO_EXPORT AbstractSignaledAsyncDecoder : public SignaledAsyncDecoderInterface, public AsyncDecoderInterface {
    Q_OBJECT
public:
    explicit AbstractSignaledAsyncDecoder(QObject* parent = nullptr) : SignaledAsyncDecoderInterface(parent) {}
    void frameFinished(const VideoFrame& frame) override;
    void decodingError(const DecoderError& error) override;
};

}  // namespace orvo
