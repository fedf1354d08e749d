#pragma once
// The synchronous decoding entry point.
//
// AbstractDecoder is the interface of every format decoder. Decoder (the dispatcher)
// turns an image's one-byte format code into a format decoder, keeps it between calls
// so that stream decoders keep their reference pictures, and runs it on payloads.
// Use one Decoder per camera stream, from one thread at a time; copies of a Decoder
// share its format decoder (and so its stream state).
#include "orvo/log.h"
#include "orvo/video_frame.h"

#include <QSharedPointer>

class ORVO_EXPORT AbstractDecoder {
public:
    AbstractDecoder() = default;
    AbstractDecoder(const AbstractDecoder&) = delete;
    AbstractDecoder& operator=(const AbstractDecoder&) = delete;
    virtual ~AbstractDecoder();
    // Fills `frame` and returns true on success. `data` may be repaired in place.
    virtual bool decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe);
    virtual bool fail() const;
    virtual unsigned char getFormat() const = 0;
    virtual bool is_stream_based() const;
    virtual bool produces_shallow_images() const;

    // The largest picture a payload may declare (64 Mpixel, above every camera sensor):
    // a few header bytes must not make a 64-stream client allocate gigabytes.
    static constexpr qint64 kMaxPixels = 8192LL * 8192;
};

class ORVO_EXPORT Decoder {
public:
    Decoder();
    Decoder(unsigned char type, int param);
    Decoder(const Decoder& other);
    Decoder& operator=(const Decoder& other);
    ~Decoder();

    // Selects (or keeps) the format decoder for `type`; false for an unknown code, which
    // leaves the current decoder in place. `param` is the JPEG 2000 / wavelet scale level.
    bool init(unsigned char type, int param);
    bool isFormat(unsigned char type, int param);
    bool isInitialized();
    unsigned char getFormat();  // ' ' when no format decoder is held
    bool decode(unsigned char type, unsigned char* data, int size, orvo::VideoFrame& frame, int param, bool iframe);
    bool decode(const unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe);
    orvo::VideoFrame decode2videoframe(unsigned char* data, int size, bool* ok, bool iframe);
    void swap(Decoder& other);

    // The held format decoder (null before init); pooled jobs keep a copy alive while they run.
    QSharedPointer<AbstractDecoder> formatDecoder() const { return decoder_; }

private:
    QSharedPointer<AbstractDecoder> decoder_;
};
