#pragma once
// The synchronous decoding entry point.
//
// AbstractDecoder is the interface of every format decoder. Decoder (the dispatcher)
// turns an image's one-byte format code into a format decoder, keeps it between calls
// so that stream decoders keep their reference pictures, and runs it on payloads.
// Use one Decoder per camera stream, from one thread at a time; copies of a Decoder
// share its format decoder (and so its stream state).
#include "orvo/image.h"
#include "orvo/log.h"
#include "orvo/picture_bound.h"
#include "orvo/video_frame.h"

#include <QList>
#include <QPair>
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

    // --- pictures that come out later than their payloads ---
    // Stream decoders may hold a picture back (B-frames, MPEG-2's one-picture delay) or
    // need several payloads for one picture (one slice per payload). The dispatcher tags
    // each payload before decode(); after a decode() or drain() that filled a frame,
    // pictureTag() names the payload the picture came from (-1: unknown), and after a
    // decode() that returned false, isPayloadAccepted() tells whether the payload was
    // taken all the same (parameter sets, SEI, part of a picture, a held-back picture)
    // rather than refused. Decoders without delay keep the defaults: each picture is its
    // own payload's, and false means refused.
    void setPayloadTag(qint64 tag)
    {
        payloadTag_ = pictureTag_ = tag;
        payloadAccepted_ = false;
    }
    qint64 pictureTag() const { return pictureTag_; }
    bool isPayloadAccepted() const { return payloadAccepted_; }
    // End of stream: fills `frame` with one picture the decoder still holds; false once
    // none is left, after which a stream decoder takes a new stream from its next I-frame.
    virtual bool drain(orvo::VideoFrame& frame);

    // The largest picture a payload may declare (see picture_bound.h).
    static constexpr qint64 kMaxPixels = ORVO_MAX_PICTURE_PIXELS;

protected:
    qint64 payloadTag() const { return payloadTag_; }
    void setPictureTag(qint64 tag) { pictureTag_ = tag; }
    void setPayloadAccepted(bool accepted) { payloadAccepted_ = accepted; }

private:
    qint64 payloadTag_ = 0;
    qint64 pictureTag_ = 0;
    bool payloadAccepted_ = false;
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
    // True for the format codes init() accepts (0 among them: the null decoder).
    static bool isKnownFormat(unsigned char type);
    bool isInitialized();
    unsigned char getFormat();  // ' ' when no format decoder is held
    bool decode(unsigned char type, unsigned char* data, int size, orvo::VideoFrame& frame, int param, bool iframe);
    bool decode(const unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe);
    orvo::VideoFrame decode2videoframe(unsigned char* data, int size, bool* ok, bool iframe);
    void swap(Decoder& other);

    // --- whole images, with their identity ---
    enum class ImageResult {
        Picture,  // `frame` holds a picture
        Pending,  // the image was taken without a picture coming out: not an error
        Failed,   // refused (null image, empty payload, unknown format code) or undecodable
    };
    // Decodes `image` with the format decoder for its code (`param` as for init). A
    // picture is stamped with the id, stream id, image record (hence time) and attached
    // data of the image it came from: for decoders that hold pictures back (B-frames,
    // MPEG-2) an earlier image, for a picture spread over several images (one slice
    // each) the image of its first slice. Images holding only parameter sets or SEI,
    // slices of a picture not yet complete and pictures held back give Pending.
    ImageResult decodeImage(const orvo::Image& image, orvo::VideoFrame& frame, int param = 0);
    // End of stream: one picture the format decoder still holds per call, stamped as
    // above; false once none is left, after which the decoder takes a new stream from its
    // next I-frame.
    bool drain(orvo::VideoFrame& frame);

    // The held format decoder (null before init); pooled jobs keep a copy alive while they run.
    QSharedPointer<AbstractDecoder> formatDecoder() const { return decoder_; }

private:
    bool run(const unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe);
    void stamp(orvo::VideoFrame& frame, qint64 tag, const orvo::Image& fallback);

    QSharedPointer<AbstractDecoder> decoder_;
    // Images whose pictures may still come out, by payload tag, oldest first.
    QList<QPair<qint64, orvo::Image>> held_;
};
