#include "orvo/decoder.h"

#include "decoders/format_table.h"
#include "decoders/frame_stamp.h"
#include "frames/picture_fit.h"
#include "orvo/decoder_av.h"
#include "orvo/decoder_h264.h"
#include "orvo/decoder_jpeg.h"
#include "orvo/decoder_jpeg2000.h"
#include "orvo/decoder_mxpeg.h"
#include "orvo/decoder_null.h"
#include "orvo/decoder_preferences.h"
#include "orvo/decoder_wavelet.h"
#include "orvo/decoder_yuv.h"
#include "orvo/elapsed_timer.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <exception>
#include <new>

using namespace orvo;

namespace {

LogCategory decoderCategory("orvo.decoder");

unsigned char lower(unsigned char c) { return static_cast<unsigned char>(std::tolower(c)); }

// The format decoder for a row; preferences are read here, at creation.
AbstractDecoder* createDecoder(const formats::Format& row, int param)
{
    switch (formats::decoderKind(row)) {
    case formats::Kind::AV: return new DecoderAV(row.input);
    case formats::Kind::MPEG4: return new DecoderMPEG4;
    case formats::Kind::H264: return DecoderH264::get();
    case formats::Kind::JPEG: return new DecoderJPEG;
    case formats::Kind::MXPEG: return new DecoderMXPEG;
    case formats::Kind::JPEG2000: return new DecoderJPEG2000(param);
    case formats::Kind::Wavelet: return new DecoderWavelet(formats::kFieldWidth, row.fieldLines, std::min(param, 2));
    case formats::Kind::YUV: return new DecoderYUV;
    case formats::Kind::Null: break;
    }
    return nullptr;
}

void noDelete(AbstractDecoder*) {}

// Images kept for pictures still inside a decoder. Beyond the longest a unit waits for its
// picture (the reordering depth and 32 units more) even with several images per access
// unit; older ones go first, so images that never give a picture (parameter sets, later
// slices) do not pile up.
constexpr int kMaxHeldImages = 256;
// Ended images a client never takes are kept up to this many.
constexpr int kMaxEndedImages = 1024;

// Payload tags are unique in the process, so copies of a Decoder never mix them up.
qint64 nextPayloadTag()
{
    static std::atomic<qint64> last{0};
    return ++last;
}

}  // namespace

Decoder::Decoder() = default;

Decoder::Decoder(unsigned char type, int param) { init(type, param); }

Decoder::Decoder(const Decoder& other) = default;

Decoder& Decoder::operator=(const Decoder& other) = default;

Decoder::~Decoder() = default;

bool Decoder::init(unsigned char type, int param)
{
    const formats::Format* row = formats::find(type);
    if (!row)
        return false;
    if (decoder_ && isFormat(type, param)) {
        // JPEG 2000 takes a new scale level in place.
        if (row->kind == formats::Kind::JPEG2000)
            if (auto* jpeg2000 = dynamic_cast<DecoderJPEG2000*>(decoder_.data()))
                jpeg2000->setScaleLevel(param);
        return true;
    }
    retire();
    decoder_.reset();
    held_.clear();
    lastStamped_ = {};
    initFailure_.clear();
    if (formats::decoderKind(*row) == formats::Kind::Null) {
        // The process-wide null decoder must never be freed.
        decoder_ = QSharedPointer<AbstractDecoder>(DecoderNULL::instance(), noDelete);
        return true;
    }
    // No exception crosses the library's interface: a decoder that cannot be built
    // (out of memory, a backend that fails to start) leaves the dispatcher empty.
    try {
        AbstractDecoder* created = createDecoder(*row, param);
        if (!created)
            return false;
        if (created->fail()) {  // e.g. a codec the linked FFmpeg lacks
            initFailure_ = created->failReason();
            delete created;
            return false;
        }
        // Required hardware decoding is never silently software, whatever the format.
        if (DecoderPreferences::instance()->hardwareDecoding() == HardwareDecoding::Required &&
            created->decodingPath().engine == DecodingPath::Engine::Software) {
            initFailure_ = QStringLiteral("hardware decoding required, but the %1 decoder decodes in software")
                               .arg(QLatin1String(row->name));
            olog(decoderCategory, LOG_WARNING, "Decoder::init", "%s", initFailure_.toUtf8().constData());
            delete created;
            return false;
        }
        created->setMaxOutputSize(maxOutputSize_);
        decoder_ = QSharedPointer<AbstractDecoder>(created);
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const char* reason) {
        olog(decoderCategory, LOG_ERROR, "Decoder::init", "%s", reason);
        return false;
    } catch (const std::exception& e) {
        olog(decoderCategory, LOG_ERROR, "Decoder::init", "%s", e.what());
        return false;
    }
    return true;
}

bool Decoder::isFormat(unsigned char type, int param)
{
    const formats::Format* row = formats::find(type);
    if (!decoder_ || !row)
        return false;
    // Codes compare case-insensitively, across rows too (MPEG-4's lower-case code matches a held MPEG-2 decoder).
    if (lower(decoder_->getFormat()) != lower(type))
        return false;
    // Wavelet decoders are built for one scale level.
    if (row->kind == formats::Kind::Wavelet) {
        const auto* wavelet = dynamic_cast<const DecoderWavelet*>(decoder_.data());
        if (!wavelet)
            return false;
        const int level = wavelet->scaleLevel();
        return level == param || (param >= 3 && level == 2);
    }
    return true;
}

bool Decoder::isKnownFormat(unsigned char type) { return formats::find(type) != nullptr; }

bool Decoder::isInitialized() { return !decoder_.isNull(); }

unsigned char Decoder::getFormat() { return decoder_ ? decoder_->getFormat() : ' '; }

bool Decoder::decode(unsigned char type, unsigned char* data, int size, orvo::VideoFrame& frame, int param,
                     bool iframe)
{
    if (!init(type, param))
        return false;
    return decode(data, size, frame, iframe);
}

// `data` is handed to the format decoder as it is: the H.264 camera repairs write into
// the payload (images' payloads are writable for that reason).
bool Decoder::decode(const unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe)
{
    if (!decoder_) {
        olog(decoderCategory, LOG_ERROR, "Decoder::decode", "Decoder not intialized");
        return false;
    }
    decoder_->setPayloadTag(0);
    return run(data, size, frame, iframe);
}

bool Decoder::run(const unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe)
{
    const bool debug = decoderCategory.isDebugEnabled();
    if (debug)
        olog(decoderCategory, LOG_DEBUG, "Decoder::decode", "[DECODE] About to decode");
    ElapsedTimer timer;
    const bool ok = decoder_->decode(const_cast<unsigned char*>(data), size, frame, iframe);
    const qint64 elapsed = timer.nsecsElapsed();
    if (debug)
        olog(decoderCategory, LOG_DEBUG, "Decoder::decode", "[DECODE] Finished decoding image, id: %llu",
             static_cast<unsigned long long>(frame.id()));
    frame.setDecodingDurationNanoSecs(elapsed);
    return ok;
}

orvo::VideoFrame Decoder::decode2videoframe(unsigned char* data, int size, bool* ok, bool iframe)
{
    orvo::VideoFrame frame;
    const bool result = decode(data, size, frame, iframe);
    if (ok)
        *ok = result;
    return frame;
}

void Decoder::swap(Decoder& other)
{
    decoder_.swap(other.decoder_);
    held_.swap(other.held_);
    pictures_.swap(other.pictures_);
    std::swap(lastStamped_, other.lastStamped_);
    ended_.swap(other.ended_);
    std::swap(failure_, other.failure_);
    std::swap(initFailure_, other.initFailure_);
    std::swap(maxOutputSize_, other.maxOutputSize_);
}

orvo::DecodingPath Decoder::decodingPath() const
{
    return decoder_ ? decoder_->decodingPath() : orvo::DecodingPath();
}

void Decoder::setMaxOutputSize(const QSize& size)
{
    maxOutputSize_ = size.isEmpty() ? QSize() : size;
    if (decoder_)
        decoder_->setMaxOutputSize(maxOutputSize_);
}

void Decoder::fitToOutputSize(orvo::VideoFrame& frame) const
{
    // Planar 4:2:0 pictures of at least 2x2 only: other layouts (Qt's JPEG reader) and
    // degenerate sizes go out as decoded rather than through a scaler that cannot take them.
    if (maxOutputSize_.isEmpty() || frame.isNull() || frame.pixelFormat() != orvo::VideoFrame::Format_YUV420P ||
        frame.width() < 2 || frame.height() < 2)
        return;
    // Fitted as shown: a picture marked with a display scale (wavelet fields, lines doubled)
    // keeps its mark and its proportions.
    const QSize target = reducedSize(QSize(frame.width(), frame.height()), maxOutputSize_, frame.getScaleX(),
                                     frame.getScaleY());
    if (!target.isValid())
        return;
    // Scaled once here, on the thread that decodes (a pool thread for pooled decoders),
    // so that the owner thread and the client handle a picture of the size shown.
    orvo::VideoFrame small(target.width(), target.height(), frame.pixelFormat(), orvo::defaultBufferProperties);
    if (small.isNull() || !frame.scaleTo(small, 0, 0, -1, -1))
        return;  // out of memory: the picture goes out at its own size
    if (frame.getScaleX() && frame.getScaleY())
        small.setScale(frame.getScaleX(), frame.getScaleY());
    small.setDamaged(frame.isDamaged());
    frame = small;
}

Decoder::ImageResult Decoder::decodeImage(const orvo::Image& image, orvo::VideoFrame& frame, int param)
{
    pictures_.clear();
    failure_.clear();
    if (image.isNull() || image.payloadSize() == 0) {
        failure_ = image.isNull() ? QStringLiteral("null image") : QStringLiteral("empty payload");
        return ImageResult::Failed;
    }
    if (!init(image.type(), param) || !decoder_) {
        failure_ = isKnownFormat(image.type())
                       ? QStringLiteral("the decoder for format code %1 could not be opened").arg(image.type())
                       : QStringLiteral("unknown format code %1").arg(image.type());
        if (!initFailure_.isEmpty())
            failure_ += QStringLiteral(": ") + initFailure_;
        return ImageResult::Failed;
    }
    // Pictures the previous format decoder still held (init() retired it) come out first.
    const bool retired = !pictures_.isEmpty();
    const qint64 tag = nextPayloadTag();
    held_.append(qMakePair(tag, image));
    if (held_.size() > kMaxHeldImages)
        held_.removeFirst();
    decoder_->setPayloadTag(tag, image.isAccessUnitEnd());
    orvo::VideoFrame first;
    const bool got = run(image.payloadData(), int(image.payloadSize()), first, image.iframe());
    const bool accepted = got || decoder_->isPayloadAccepted();
    if (got) {
        stamp(first, decoder_->pictureTag(), image);
        if (retired)
            pictures_.append(first);
    }
    QString reason;
    const bool ownEnded = collectAnswers(tag, &reason);
    if (got || !pictures_.isEmpty()) {
        // The usual single picture goes out without passing through the list.
        frame = got && !retired ? first : pictures_.takeFirst();
        if (ownEnded)
            ended_.append({image, reason});
        return ImageResult::Picture;
    }
    if (ownEnded) {
        failure_ = reason;
        return ImageResult::Failed;
    }
    if (accepted)
        return ImageResult::Pending;
    for (int i = held_.size() - 1; i >= 0; --i) {
        if (held_.at(i).first == tag) {
            held_.removeAt(i);
            break;
        }
    }
    failure_ = decoder_->payloadFailure();
    if (failure_.isEmpty())
        failure_ = QStringLiteral("the payload could not be decoded");
    return ImageResult::Failed;
}

bool Decoder::takePicture(orvo::VideoFrame& frame)
{
    if (pictures_.isEmpty())
        return false;
    frame = pictures_.takeFirst();
    return true;
}

QList<Decoder::EndedImage> Decoder::takeImagesWithoutPicture()
{
    QList<EndedImage> out;
    out.swap(ended_);
    return out;
}

bool Decoder::collectAnswers(qint64 currentTag, QString* reason)
{
    orvo::VideoFrame frame;
    while (decoder_->nextPicture(frame)) {
        stamp(frame, decoder_->pictureTag(), orvo::Image());
        pictures_.append(frame);
        frame = orvo::VideoFrame();
    }
    bool own = false;
    qint64 tag = 0;
    QString why;
    while (decoder_->takeEndedPayload(&tag, &why)) {
        for (int i = 0; i < held_.size(); ++i) {
            if (held_.at(i).first != tag)
                continue;
            const orvo::Image image = held_.takeAt(i).second;
            if (tag == currentTag && reason) {
                own = true;
                *reason = why;
            } else {
                ended_.append({image, why});
                if (ended_.size() > kMaxEndedImages)
                    ended_.removeFirst();
            }
            break;
        }
    }
    return own;
}

void Decoder::retire()
{
    if (!decoder_)
        return;
    // The pictures the old format decoder holds come out before the new format's.
    orvo::VideoFrame frame;
    while (decoder_->drain(frame)) {
        stamp(frame, decoder_->pictureTag(), orvo::Image());
        pictures_.append(frame);
        frame = orvo::VideoFrame();
    }
    collectAnswers(0, nullptr);
}

bool Decoder::drain(orvo::VideoFrame& frame)
{
    if (takePicture(frame))
        return true;
    if (decoder_ && decoder_->drain(frame)) {
        stamp(frame, decoder_->pictureTag(), orvo::Image());
        return true;
    }
    if (decoder_)
        collectAnswers(0, nullptr);
    held_.clear();
    lastStamped_ = {};
    return false;
}

void Decoder::stamp(orvo::VideoFrame& frame, qint64 tag, const orvo::Image& fallback)
{
    fitToOutputSize(frame);
    orvo::Image image = fallback;
    if (tag == lastStamped_.first && !lastStamped_.second.isNull())
        image = lastStamped_.second;  // an image holding several access units
    for (int i = 0; i < held_.size(); ++i) {
        if (held_.at(i).first == tag) {
            image = held_.takeAt(i).second;
            lastStamped_ = qMakePair(tag, image);
            break;
        }
    }
    if (image.isNull())
        return;  // a drained picture whose image was forgotten keeps no identity
    stampFrame(frame, image);
}
