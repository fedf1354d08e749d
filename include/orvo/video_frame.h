#pragma once
// VideoFrame: the decoded picture, a cheap value handle over one shared body.
//
// Copies share the body: a setter or a pixel write through one copy is seen through
// all of them (no copy-on-write). Deep copies are made only by clone(), copy() and
// convertToFormat(). An empty handle is a null frame; accessors of a null frame
// answer 0, null or empty, and every setter first gives it a fresh body.
//
// Memory: planes live as long as the last handle (or VideoFrameHelper) sharing the
// body; frames stay valid after the decoder that produced them is destroyed.
//
// Zero-copy frames (DecoderPreferences::setZeroCopyDecoding, on by default) wrap the
// decoder's own reference pictures, which are read-only underneath. Such a frame detaches
// on its first write: mapping it for writing (and with it fill, blend, QImage import,
// scaleTo into it, VideoFrameHelper) first gives its body planes of its own, allocated as
// any decoder frame (bytes per line = width) and carrying the same pixels. The handles
// sharing that body see the new planes; bodies copied before (VideoFrameQt copies) and the
// decoder's following pictures keep the decoded pixels. Reading never copies.
#include "orvo/video_frame_qt.h"

#include <memory>
#include <string>

namespace orvo {

class ORVO_EXPORT VideoFrame : public PixelFormats {
public:
    using MapMode = QAbstractVideoBuffer::MapMode;

    VideoFrame() = default;
    VideoFrame(const VideoFrame&) = default;
    VideoFrame(VideoFrame&&) noexcept = default;
    VideoFrame& operator=(const VideoFrame& other);
    VideoFrame& operator=(VideoFrame&&) noexcept = default;
    ~VideoFrame() = default;

    VideoFrame(int width, int height, OrvoPixelFormat format, const BufferProperties& props);
    VideoFrame(int numBytes, int width, int height, int bytesPerLine, OrvoPixelFormat format, bool separate);
    VideoFrame(int numBytes, int width, int height, int bytesPerLine, OrvoPixelFormat format);
    VideoFrame(int numBytes, int width, int height, int bytesPerLine, OrvoPixelFormat format, int align);
    VideoFrame(QAbstractVideoBuffer* y, QAbstractVideoBuffer* u, QAbstractVideoBuffer* v, const QSize& size,
               OrvoPixelFormat format);
    VideoFrame(QAbstractVideoBuffer* buffer, const QSize& size, OrvoPixelFormat format);
    VideoFrame(const QVideoFrame& y, const QVideoFrame& u, const QVideoFrame& v, OrvoPixelFormat format);
    VideoFrame(const QVideoFrame& y, const QVideoFrame& u, const QVideoFrame& v, const QVideoFrame& a,
               OrvoPixelFormat format);
    explicit VideoFrame(const Image& image);
    explicit VideoFrame(const QImage& image);
    // Picture from `image`, metadata from a body copy of `metadataSource` (default body when null).
    VideoFrame(QImage& image, const VideoFrame& metadataSource);
    explicit VideoFrame(std::shared_ptr<VideoFrameQt> body) : d(std::move(body)) {}

    // Identity: true when both share one body (two null frames are equal).
    bool operator==(const VideoFrame& o) const { return d == o.d; }
    bool operator!=(const VideoFrame& o) const { return d != o.d; }

    VideoFrameQt* body() const { return d.get(); }
    std::shared_ptr<VideoFrameQt> sharedBody() const { return d; }

    // --- planes -------------------------------------------------------------------
    unsigned char* bits() const { return d ? d->bits() : nullptr; }
    unsigned char* bitsY() const { return d ? d->bitsY() : nullptr; }
    unsigned char* bitsU() const { return d ? d->bitsU() : nullptr; }
    unsigned char* bitsV() const { return d ? d->bitsV() : nullptr; }
    unsigned char* bitsA() const { return d ? d->bitsA() : nullptr; }
    unsigned int bytesPerLine() const { return d ? d->bytesPerLine() : 0; }
    unsigned int bytesPerLineY() const { return d ? d->bytesPerLineY() : 0; }
    unsigned int bytesPerLineU() const { return d ? d->bytesPerLineU() : 0; }
    unsigned int bytesPerLineV() const { return d ? d->bytesPerLineV() : 0; }
    unsigned int bytesPerLineA() const { return d ? d->bytesPerLineA() : 0; }
    int width() const { return d ? d->width() : 0; }
    int widthY() const { return d ? d->widthY() : 0; }
    int widthU() const { return d ? d->widthU() : 0; }
    int widthV() const { return d ? d->widthV() : 0; }
    int widthA() const { return d ? d->widthA() : 0; }
    int height() const { return d ? d->height() : 0; }
    int heightY() const { return d ? d->heightY() : 0; }
    int heightU() const { return d ? d->heightU() : 0; }
    int heightV() const { return d ? d->heightV() : 0; }
    int heightA() const { return d ? d->heightA() : 0; }
    int mappedBytes() const { return d ? d->mappedBytes() : 0; }
    int mappedBytesY() const { return d ? d->mappedBytesY() : 0; }
    int mappedBytesU() const { return d ? d->mappedBytesU() : 0; }
    int mappedBytesV() const { return d ? d->mappedBytesV() : 0; }
    int mappedBytesA() const { return d ? d->mappedBytesA() : 0; }
    unsigned char* lineY(int row) const { return d ? d->lineY(row) : nullptr; }
    unsigned char* lineU(int row) const { return d ? d->lineU(row) : nullptr; }
    unsigned char* lineV(int row) const { return d ? d->lineV(row) : nullptr; }

    // --- metadata -------------------------------------------------------------------
    quint64 id() const { return d ? d->id() : 0; }
    void setId(quint64 id) { body_()->setId(id); }
    quint32 streamId() const { return d ? d->streamId() : 0; }
    void setStreamId(unsigned int id) { body_()->setStreamId(id); }
    unsigned short getScaleX() const { return d ? d->getScaleX() : 0; }
    unsigned short getScaleY() const { return d ? d->getScaleY() : 0; }
    void setScale(unsigned short x, unsigned short y) { body_()->setScale(x, y); }
    QByteArray viewName() const { return d ? d->viewName() : QByteArray(); }
    std::string viewNameStdString() const { return viewName().toStdString(); }
    void setViewName(const QByteArray& name) { body_()->setViewName(name); }
    void setViewName(const std::string& name) { body_()->setViewName(QByteArray::fromStdString(name)); }
    QByteArray attachedData() const { return d ? d->attachedData() : QByteArray(); }
    QByteArray& attachedData(QByteArray& out) const { out = attachedData(); return out; }
    void setAttachedData(const QByteArray& data) { body_()->setAttachedData(data); }
    int maximalWidth() const { return d ? d->maximalWidth() : 0; }
    int maximalHeight() const { return d ? d->maximalHeight() : 0; }
    void setMaximalWidth(int w) { body_()->setMaximalWidth(w); }
    void setMaximalHeight(int h) { body_()->setMaximalHeight(h); }
    qint64 decodingDurationNanoSecs() const { return d ? d->decodingDurationNanoSecs() : 0; }
    void setDecodingDurationNanoSecs(qint64 ns) { body_()->setDecodingDurationNanoSecs(ns); }
    // FFmpeg concealed errors in this picture (a slice lost or corrupt), or it predicts from
    // such a picture. See DecoderPreferences::setDamagedPictures.
    bool isDamaged() const { return d && d->isDamaged(); }
    void setDamaged(bool damaged) { body_()->setDamaged(damaged); }
    Image image() const { return d ? d->image() : Image(); }
    const Image& imageRef() const;
    void setImage(const Image& image) { body_()->setImage(image); }
    std::list<QRect>& decorationsRectsRef() { return body_()->decorationsRectsRef(); }
    RenderingTimings& renderTimings() const;
    OrvoPixelFormat pixelFormat() const { return d ? d->pixelFormat() : Format_Invalid; }
    bool areSeparatePlanes() const { return d && d->areSeparatePlanes(); }

    // The attachment step of every decode path: attachedData becomes the image's network
    // header (with `payloadSize`) followed by the image's own attached data.
    void attachImageData(const Image& image, quint32 payloadSize);

    // --- state ----------------------------------------------------------------------
    bool isNull() const { return !d || d->isNull(); }
    bool isValid() const { return d && d->isValid(); }
    bool isNullImage() const { return !d || d->isNullImage(); }
    bool isValidImage() const { return d && d->isValidImage(); }
    bool isMapped() const { return d && d->isMapped(); }
    bool map(MapMode mode) { return d && d->map(mode); }
    bool map() const { return d && d->map(); }
    bool mapIfNotMapped(MapMode mode) { return d && d->mapIfNotMapped(mode); }
    bool mapIfNotMapped() const { return d && d->mapIfNotMapped(); }
    void unmap() { if (d) d->unmap(); }
    void unmap() const { if (d) d->unmap(); }
    MapMode mapMode() const { return d ? d->mapMode() : QAbstractVideoBuffer::NotMapped; }

    // --- geometry -------------------------------------------------------------------
    static QSize planeUVSize(const QSize& size, OrvoPixelFormat format) { return VideoFrameQt::planeUVSize(size, format); }
    int xPosPlaneUV(int x) const { return d ? d->xPosPlaneUV(x) : 0; }
    int yPosPlaneUV(int y) const { return d ? d->yPosPlaneUV(y) : 0; }
    static bool planeUVGeometry(int& numBytes, int& width, int& height, int& bytesPerLine, OrvoPixelFormat& format);
    static QString pixelFormatName(OrvoPixelFormat format);

    // --- deep copies and conversions ---------------------------------------------------
    VideoFrame clone(const BufferProperties& properties) const;
    VideoFrame clone(int align, bool withAlpha) const;
    // A new width x height frame in this frame's pixel format with planes from `props`;
    // its region from (0,0) holds this frame's pixels from (x,y) on. With fillUncovered the
    // rest is black (Y 0, U/V 128); otherwise it is left as allocated. Metadata as clone().
    // Negative x/y shift the picture right/down. Chroma moves by x / y divided by the chroma
    // decimation, rounded down. With props.skipAlpha false the copy has an alpha plane (copied,
    // opaque where the source has none, 0 where uncovered). The source's map state is kept.
    // Null on a null frame, a frame not split into planes, or a non-positive size.
    VideoFrame copy(int x, int y, int width, int height, const BufferProperties& props, bool fillUncovered) const;
    // Converts between Format_YUV420P, Format_YUV422P and Format_YUV444P; metadata as clone().
    // Null frame on failure or an unsupported format.
    VideoFrame convertToFormat(OrvoPixelFormat format, const BufferProperties& props) const;
    // Writes `overlay` (which needs an alpha plane) onto this frame at (x, y) in luma samples,
    // weighting luma and chroma by straight (not premultiplied) alpha, clipped to this frame.
    // Both frames are split 4:2:0, 4:2:2 or 4:4:4 frames (they may differ). False on bad input
    // (no planes or alpha plane, other formats, the overlay being this frame, or a mapping that
    // does not allow writing); true with nothing written when the overlay lies entirely outside.
    // Map state of both frames is kept.
    bool blend(const VideoFrame& overlay, int x, int y);

    // --- fills (map the frame for writing first) ---------------------------------------
    void fillRgb(unsigned int rgb, const Rect& r) { if (d) d->fillRgb(rgb, r); }
    void fillYuv(unsigned int yuv, const Rect& r) { if (d) d->fillYuv(yuv, r); }
    void fillY(unsigned char v, const Rect& r) { if (d) d->fillY(v, r); }
    void fillU(unsigned char v, const Rect& r) { if (d) d->fillU(v, r); }
    void fillV(unsigned char v, const Rect& r) { if (d) d->fillV(v, r); }

    // --- scaling and QImage ----------------------------------------------------------------
    // Scales the region (x, y, width, height) into the whole of `dst` (negative x/y count from
    // the right/bottom, negative sizes mean the whole picture). The metadata is copied first,
    // even when the scaling fails. On success both frames are unmapped; after a failure they are
    // left as mapped and the caller unmaps them. See scale_context.h for the threading rules.
    bool scaleTo(VideoFrame& dst, ScaleContext& ctx, int x, int y, int width, int height) const;
    bool scaleTo(VideoFrame& dst, int x, int y, int width, int height) const;
    // The region as a Format_RGB32 image (studio-range BT.601), `format` is ignored. Rows of the
    // image carry padding (use bytesPerLine()). A null or unconverted image means it did not run;
    // a mapping made for the conversion then stays in place.
    // One process-wide cached swscale context: call from one thread at a time.
    QImage convertToQImage(OrvoPixelFormat format, int x, int y, int width, int height, int imageWidth,
                           int imageHeight, int widthNumerator, int widthDenominator, int heightNumerator,
                           int heightDenominator) const;

private:
    VideoFrameQt* body_();
    std::shared_ptr<VideoFrameQt> d;
};

}  // namespace orvo

Q_DECLARE_METATYPE(orvo::VideoFrame)
