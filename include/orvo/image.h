#pragma once
// The compressed camera image record of the SDK: an implicitly shared value.
//
// Copies share one immutable-by-default record; a setter on a shared copy detaches
// first, so a change never shows through other copies. WeakImage refers to the
// record without keeping it alive. Copying and destroying images is thread-safe
// (atomic reference counting); one Image object is not to be written from two
// threads at once.
#include "orvo/export.h"
#include <QByteArray>
#include <QString>
#include <QtGlobal>
#include <memory>

namespace orvo {

enum class ImageHeaderVersion : quint8 {
    V1 = 1,
};

// The network image header that travels in front of a frame's attached data.
// Layout of version 1, 40 bytes, all integers big-endian:
//   0  4  magic "OIMG"
//   4  1  version (1)
//   5  1  format code (Image::type())
//   6  1  flags
//   7  1  I-frame (0 or 1)
//   8  8  id
//  16  8  time
//  24  4  channel
//  28  4  stream id
//  32  4  payload size
//  36  4  attached data size
struct ORVO_EXPORT ImageHeader {
    static constexpr int kSizeV1 = 40;
    quint8 version = 1;
    quint8 type = 0;
    quint8 flags = 0;
    bool iframe = false;
    quint64 id = 0;
    qint64 time = 0;
    quint32 channel = 0;
    quint32 streamId = 0;
    quint32 payloadSize = 0;
    quint32 attachedSize = 0;

    QByteArray serialize() const;
    // Parses a header from the front of `data`; false when it is short or not a header.
    static bool parse(const QByteArray& data, ImageHeader& out);
};

class WeakImage;

class ORVO_EXPORT Image {
public:
    Image();  // a null image
    Image(quint8 type, const QByteArray& payload, quint64 id = 0, qint64 time = 0, bool iframe = false);
    Image(const Image&) = default;
    Image(Image&&) noexcept = default;
    Image& operator=(const Image&) = default;
    Image& operator=(Image&&) noexcept = default;
    Image& operator=(const WeakImage& weak);  // null when the weak reference expired
    ~Image() = default;

    bool isNull() const { return !d_; }

    quint64 id() const;
    qint64 time() const;
    quint32 channel() const;
    quint32 streamId() const;
    quint8 type() const;
    quint8 flags() const;
    bool iframe() const;
    // Flag bit: the payload is the last of its access unit (H.264/H.265; RTP's marker
    // bit). The decoder then hands the access unit on at once instead of waiting for the
    // next one to begin. The low three bits are the field kind.
    static constexpr quint8 kAccessUnitEnd = 0x08;
    bool isAccessUnitEnd() const { return (flags() & kAccessUnitEnd) != 0; }
    // The payload bytes; null for a null image. Non-const because decoders may repair
    // a payload in place (H.264): such repairs are seen by every copy.
    unsigned char* payloadData() const;
    quint32 payloadSize() const;
    QByteArray payload() const;
    QByteArray attachedData() const;
    QString idToString() const;
    QByteArray generateNetworkImageHeader(ImageHeaderVersion version = ImageHeaderVersion::V1) const;

    // Setters make a null image non-null and detach a shared one.
    Image& setId(quint64 id);
    Image& setTime(qint64 time);
    Image& setChannel(quint32 channel);
    Image& setStreamId(quint32 streamId);
    Image& setType(quint8 type);
    Image& setFlags(quint8 flags);
    Image& setIFrame(bool iframe);
    Image& setAccessUnitEnd(bool end) { return setFlags(end ? flags() | kAccessUnitEnd : flags() & ~kAccessUnitEnd); }
    Image& setPayload(const QByteArray& payload);
    Image& setAttachedData(const QByteArray& data);

    // True when both handles share one record (or both are null).
    bool sharesDataWith(const Image& other) const { return d_ == other.d_; }
    long useCount() const { return d_.use_count(); }

private:
    friend class WeakImage;
    struct Data;
    void detach();
    std::shared_ptr<Data> d_;
};

class ORVO_EXPORT WeakImage {
public:
    WeakImage() = default;
    WeakImage(const Image& image) : d_(image.d_) {}  // NOLINT: implicit like QWeakPointer
    bool isNull() const { return d_.expired(); }
    Image toStrong() const;

private:
    friend class Image;
    std::weak_ptr<Image::Data> d_;
};

}  // namespace orvo
