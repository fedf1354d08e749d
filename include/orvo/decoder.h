#pragma once
// The synchronous decoding entry point.
//
// AbstractDecoder is the interface of every format decoder. Decoder (the dispatcher)
// turns an image's one-byte format code into a format decoder, keeps it between calls
// so that stream decoders keep their reference pictures, and runs it on payloads.
// Use one Decoder per camera stream, from one thread at a time; copies of a Decoder
// share its format decoder (and so its stream state).
#include "orvo/decoding_path.h"
#include "orvo/image.h"
#include "orvo/log.h"
#include "orvo/picture_bound.h"
#include "orvo/video_frame.h"

#include <QList>
#include <QPair>
#include <QSharedPointer>
#include <QSize>

class ORVO_EXPORT AbstractDecoder {
public:
    AbstractDecoder() = default;
    AbstractDecoder(const AbstractDecoder&) = delete;
    AbstractDecoder& operator=(const AbstractDecoder&) = delete;
    virtual ~AbstractDecoder();
    // Fills `frame` and returns true on success. `data` may be repaired in place.
    virtual bool decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe);
    virtual bool fail() const;
    // Why fail() is true, where more is known than that (empty otherwise).
    virtual QString failReason() const { return QString(); }
    // Which path the decoder's pictures take now: software, unless it decodes on the GPU's
    // video engine (see DecoderPreferences::setHardwareDecoding).
    virtual orvo::DecodingPath decodingPath() const;
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
    // `endsUnit`: the payload is the last of its access unit (Image::isAccessUnitEnd()).
    void setPayloadTag(qint64 tag, bool endsUnit = false)
    {
        payloadTag_ = pictureTag_ = tag;
        payloadAccepted_ = false;
        payloadEndsUnit_ = endsUnit;
        payloadFailure_.clear();
    }
    qint64 pictureTag() const { return pictureTag_; }
    bool isPayloadAccepted() const { return payloadAccepted_; }
    // Why the last payload was refused; empty where nothing more is known.
    QString payloadFailure() const { return payloadFailure_; }
    // After a decode() that filled a frame: a further picture the payload completed (a
    // payload holding several access units), one per call in output order, with its tag
    // in pictureTag(); false once none is left.
    virtual bool nextPicture(orvo::VideoFrame& frame);
    // A tag of an earlier payload (or this one) that will never give a picture: refused
    // by the codec, a reference missing, a damaged picture skipped, the stream ended.
    // One per call, with the reason; false once none is left.
    virtual bool takeEndedPayload(qint64* tag, QString* reason);
    // End of stream: fills `frame` with one picture the decoder still holds; false once
    // none is left, after which a stream decoder takes a new stream from its next I-frame.
    virtual bool drain(orvo::VideoFrame& frame);

    // The largest picture the client shows (empty: no limit); a decoder that can decode
    // smaller directly does. The dispatcher scales what is still larger.
    virtual void setMaxOutputSize(const QSize& size) { Q_UNUSED(size); }
    // The largest picture a payload may declare (see picture_bound.h).
    static constexpr qint64 kMaxPixels = ORVO_MAX_PICTURE_PIXELS;

protected:
    qint64 payloadTag() const { return payloadTag_; }
    bool payloadEndsUnit() const { return payloadEndsUnit_; }
    void setPictureTag(qint64 tag) { pictureTag_ = tag; }
    void setPayloadAccepted(bool accepted) { payloadAccepted_ = accepted; }
    void setPayloadFailure(const QString& reason) { payloadFailure_ = reason; }

private:
    qint64 payloadTag_ = 0;
    qint64 pictureTag_ = 0;
    bool payloadAccepted_ = false;
    bool payloadEndsUnit_ = false;
    QString payloadFailure_;
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
        Picture,  // `frame` holds a picture (takePicture() gives any further ones)
        Pending,  // the image was taken without a picture coming out yet: not an error
                  // (takeImagesWithoutPicture() later names it if none ever comes)
        Failed,   // refused (null image, empty payload, unknown format code) or
                  // undecodable; failureReason() says why
    };
    // Decodes `image` with the format decoder for its code (`param` as for init). A
    // picture is stamped with the id, stream id, image record (hence time) and attached
    // data of the image it came from: for decoders that hold pictures back (B-frames,
    // MPEG-2) an earlier image, for a picture spread over several images (one slice
    // each) the image of its first slice. Images holding only parameter sets or SEI,
    // slices of a picture not yet complete and pictures held back give Pending.
    // H.264 and H.265 are decoded in whole access units: a picture comes out with the
    // image that completes it when that can be known (an image flagged
    // Image::isAccessUnitEnd(), or a stream that sends one whole access unit per image),
    // else with the image that begins the next access unit.
    ImageResult decodeImage(const orvo::Image& image, orvo::VideoFrame& frame, int param = 0);
    // After decodeImage() returned Picture: the further pictures that came out in the same
    // call, one per call in output order (an image holding several access units, or the
    // pictures the previous format decoder still held when the format code changed).
    // Take them before the next decodeImage(), which drops those left.
    bool takePicture(orvo::VideoFrame& frame);
    // Images that were answered Pending and will never give a picture (a reference
    // missing, a picture the codec discarded or refused, a damaged picture skipped while
    // waiting for a key frame, the stream's end at drain()), oldest first, with FFmpeg's
    // reason where it gives one; also the current image when a picture of an earlier one
    // came out in its call. Each accepted image holding a slice (every image, for whole
    // access units) ends exactly once: in a picture, in Failed, or here.
    struct EndedImage {
        orvo::Image image;
        QString reason;
    };
    QList<EndedImage> takeImagesWithoutPicture();
    // Why the last decodeImage() returned Failed.
    QString failureReason() const { return failure_; }
    // End of stream: one picture the format decoder still holds per call, stamped as
    // above; false once none is left, after which the decoder takes a new stream from its
    // next I-frame.
    bool drain(orvo::VideoFrame& frame);

    // --- pictures at the size a client shows them ---
    // The largest picture the client needs (an empty size clears it, the default). A larger
    // picture comes out scaled down to fit inside it, its aspect ratio kept; the frame says
    // its size, and its id, time and metadata stay. Motion JPEG, MxPEG and MPEG-4 Visual are decoded smaller by FFmpeg
    // (1/2 to 1/8; the latter two change factor at key pictures), JPEG 2000 and wavelet fields at the scale level that
    // still covers the size (or the one asked for, when smaller); other 4:2:0 pictures are decoded in full, scaled once.
    void setMaxOutputSize(const QSize& size);
    QSize maxOutputSize() const { return maxOutputSize_; }

    // --- the GPU's video engine ---
    // Which path the held format decoder's pictures take now (Engine::None before init):
    // Hardware while they come from the engine, Software otherwise, with the reason when
    // hardware decoding was asked for (DecoderPreferences::setHardwareDecoding) but the
    // stream does not have it or left it. Read it after decodeImage() to follow switches.
    orvo::DecodingPath decodingPath() const;

    // The held format decoder (null before init); pooled jobs keep a copy alive while they run.
    QSharedPointer<AbstractDecoder> formatDecoder() const { return decoder_; }

private:
    bool run(const unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe);
    void stamp(orvo::VideoFrame& frame, qint64 tag, const orvo::Image& fallback);
    void fitToOutputSize(orvo::VideoFrame& frame) const;
    // The format decoder's further pictures and ended payloads after a decode or drain;
    // true when `currentTag` itself ended (`reason` receives why).
    bool collectAnswers(qint64 currentTag, QString* reason);
    // A format switch: the old decoder's held pictures become pictures_, its waiting images ended_.
    void retire();

    QSharedPointer<AbstractDecoder> decoder_;
    // Images whose pictures may still come out, by payload tag, oldest first.
    QList<QPair<qint64, orvo::Image>> held_;
    QPair<qint64, orvo::Image> lastStamped_;
    QList<orvo::VideoFrame> pictures_;
    QList<EndedImage> ended_;
    QString failure_;
    QString initFailure_;  // why the last init() failed, where known
    QSize maxOutputSize_;
};
