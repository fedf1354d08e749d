#pragma once
// The decode job and the per-stream decoding slot of the pooled decoder.
#include "orvo/decoder.h"
#include "orvo/decoder_error.h"
#include "orvo/image.h"
#include "orvo/video_frame.h"

#include <QList>
#include <QSharedPointer>

class QThread;

namespace orvo {

// What decoding one image came to.
struct ImageOutcome {
    QList<VideoFrame> frames;    // pictures that came out, in output order (maybe of earlier images)
    QList<DecoderError> ended;   // earlier images that will never give a picture (code 1, with reason)
    quint32 errorCode = 0;       // the image's own failure, as DecoderError's codes
    QString reason;              // why it failed
    DecodingPath path;           // the decoder's path after it
};

// The images `decoder` reports as ended without a picture, as the errors that answer them.
QList<DecoderError> takeEndedAsErrors(Decoder& decoder);

// A Decoder that decodes one image at a time as the pooled decoder's job: the stream's own
// decoder, used by one thread at a time (its sequence hands it between the pool and the
// owner thread).
class ImageDecoder : public Decoder {
public:
    ImageDecoder() = default;
    virtual ~ImageDecoder();

    using Decoder::decode;

    // The job. `keep` holds the format decoder that was current when the job was started
    // alive until the job ends; `ok` (may be null) receives the success flag; `scale` is
    // the JPEG 2000 / wavelet scale level. Never throws: a failure yields a null frame and
    // error code 1, memory exhaustion 3, anything else thrown 4.
    VideoFrame decode(const Image& image, QSharedPointer<AbstractDecoder> keep, bool* ok, int scale);

    // The inner step, also run directly on the owner thread by the synchronous path:
    // decodes `image` into `frame`. A picture carries the identity of the image it came
    // from (an earlier one when the decoder held it back); without a picture the frame
    // is stamped with `image`'s identity. False without a picture; wasPending() then
    // tells whether the image was taken all the same (not an error). Further pictures of
    // the call and the earlier images that ended without one wait in takeOutcome().
    // May throw (std::bad_alloc from allocations).
    virtual bool decodeInto(const Image& image, VideoFrame& frame, int scale);
    bool wasPending() const { return pending_; }
    // The last job's (or drain's) outcome: its picture first when there was one, then the
    // further pictures, the ended images and the job's own error code.
    ImageOutcome takeOutcome();

    // The drain job: every picture the decoder still holds, with its identity, and the
    // images that ended without one. Never throws.
    ImageOutcome drainAll();

    DecoderError lastError() const { return DecoderError(errorCode_); }
    void clearError() { errorCode_ = 0; }
    QThread* workerThread() const { return workerThread_; }

private:
    quint32 errorCode_ = 0;
    QThread* workerThread_ = nullptr;
    VideoFrame result_;
    ImageOutcome outcome_;  // result_ aside
    bool pending_ = false;
};

}  // namespace orvo
