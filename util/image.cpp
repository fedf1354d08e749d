#include "orvo/image.h"

#include <QtEndian>

namespace orvo {

struct Image::Data {
    quint64 id = 0;
    qint64 time = 0;
    quint32 channel = 0;
    quint32 streamId = 0;
    quint8 type = 0;
    quint8 flags = 0;
    bool iframe = false;
    QByteArray payload;
    QByteArray attached;
};

// Payloads may be repaired in place by decoders, so the record keeps bytes that no
// caller-held QByteArray shares.
static QByteArray ownedCopy(const QByteArray& bytes)
{
    return bytes.isNull() ? QByteArray() : QByteArray(bytes.constData(), bytes.size());
}

Image::Image() = default;

Image::Image(quint8 type, const QByteArray& payload, quint64 id, qint64 time, bool iframe)
    : d_(std::make_shared<Data>())
{
    d_->type = type;
    d_->payload = ownedCopy(payload);
    d_->id = id;
    d_->time = time;
    d_->iframe = iframe;
}

Image& Image::operator=(const WeakImage& weak)
{
    d_ = weak.d_.lock();
    return *this;
}

void Image::detach()
{
    if (!d_)
        d_ = std::make_shared<Data>();
    else if (d_.use_count() > 1)
        d_ = std::make_shared<Data>(*d_);
}

quint64 Image::id() const { return d_ ? d_->id : 0; }
qint64 Image::time() const { return d_ ? d_->time : 0; }
quint32 Image::channel() const { return d_ ? d_->channel : 0; }
quint32 Image::streamId() const { return d_ ? d_->streamId : 0; }
quint8 Image::type() const { return d_ ? d_->type : 0; }
quint8 Image::flags() const { return d_ ? d_->flags : 0; }
bool Image::iframe() const { return d_ && d_->iframe; }

unsigned char* Image::payloadData() const
{
    if (!d_ || d_->payload.isNull())
        return nullptr;
    // The record owns a detached QByteArray; data() would detach again for nothing,
    // so hand out the bytes of the shared record itself.
    return reinterpret_cast<unsigned char*>(const_cast<char*>(d_->payload.constData()));
}

quint32 Image::payloadSize() const { return d_ ? quint32(d_->payload.size()) : 0; }
QByteArray Image::payload() const { return d_ ? d_->payload : QByteArray(); }
QByteArray Image::attachedData() const { return d_ ? d_->attached : QByteArray(); }

QString Image::idToString() const
{
    if (!d_)
        return QStringLiteral("null");
    return QStringLiteral("%1:%2@%3").arg(d_->streamId).arg(d_->id).arg(d_->time);
}

QByteArray Image::generateNetworkImageHeader(ImageHeaderVersion) const
{
    ImageHeader h;
    if (d_) {
        h.type = d_->type;
        h.flags = d_->flags;
        h.iframe = d_->iframe;
        h.id = d_->id;
        h.time = d_->time;
        h.channel = d_->channel;
        h.streamId = d_->streamId;
        h.payloadSize = quint32(d_->payload.size());
        h.attachedSize = quint32(d_->attached.size());
    }
    return h.serialize();
}

Image& Image::setId(quint64 v) { detach(); d_->id = v; return *this; }
Image& Image::setTime(qint64 v) { detach(); d_->time = v; return *this; }
Image& Image::setChannel(quint32 v) { detach(); d_->channel = v; return *this; }
Image& Image::setStreamId(quint32 v) { detach(); d_->streamId = v; return *this; }
Image& Image::setType(quint8 v) { detach(); d_->type = v; return *this; }
Image& Image::setFlags(quint8 v) { detach(); d_->flags = v; return *this; }
Image& Image::setIFrame(bool v) { detach(); d_->iframe = v; return *this; }
Image& Image::setPayload(const QByteArray& v) { detach(); d_->payload = ownedCopy(v); return *this; }
Image& Image::setAttachedData(const QByteArray& v) { detach(); d_->attached = v; return *this; }

Image WeakImage::toStrong() const
{
    Image img;
    img.d_ = d_.lock();
    return img;
}

QByteArray ImageHeader::serialize() const
{
    uchar p[kSizeV1];
    memcpy(p, "OIMG", 4);
    p[4] = version;
    p[5] = type;
    p[6] = flags;
    p[7] = iframe ? 1 : 0;
    qToBigEndian<quint64>(id, p + 8);
    qToBigEndian<qint64>(time, p + 16);
    qToBigEndian<quint32>(channel, p + 24);
    qToBigEndian<quint32>(streamId, p + 28);
    qToBigEndian<quint32>(payloadSize, p + 32);
    qToBigEndian<quint32>(attachedSize, p + 36);
    return QByteArray(reinterpret_cast<const char*>(p), kSizeV1);
}

bool ImageHeader::parse(const QByteArray& data, ImageHeader& out)
{
    if (data.size() < kSizeV1 || memcmp(data.constData(), "OIMG", 4) != 0)
        return false;
    const uchar* p = reinterpret_cast<const uchar*>(data.constData());
    if (p[4] != 1)
        return false;
    out.version = p[4];
    out.type = p[5];
    out.flags = p[6];
    out.iframe = p[7] != 0;
    out.id = qFromBigEndian<quint64>(p + 8);
    out.time = qFromBigEndian<qint64>(p + 16);
    out.channel = qFromBigEndian<quint32>(p + 24);
    out.streamId = qFromBigEndian<quint32>(p + 28);
    out.payloadSize = qFromBigEndian<quint32>(p + 32);
    out.attachedSize = qFromBigEndian<quint32>(p + 36);
    return true;
}

}  // namespace orvo
