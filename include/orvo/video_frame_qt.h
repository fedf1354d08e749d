#pragma once
// VideoFrameQt: the body shared by VideoFrame handles. It holds the picture's planes
// as QVideoFrames plus the metadata of the image it came from. Applications normally
// use VideoFrame; the body's operations are the same without null checks.
//
// Thread-safety: fields and map state are unlocked; concurrent setters or concurrent
// map/unmap of one body are the caller's concern.
#include "orvo/elapsed_timer.h"
#include "orvo/image.h"
#include "orvo/rect.h"
#include "orvo/rendering_timings.h"
#include "orvo/video_buffer.h"

#include <QColor>
#include <QImage>
#include <QRect>
#include <QVideoFrame>
#include <list>

namespace orvo {

class ScaleContext;

class ORVO_EXPORT VideoFrameQt : public PixelFormats {
public:
    using MapMode = QAbstractVideoBuffer::MapMode;

    VideoFrameQt();
    // Separate aligned planes from `props` (Y, U, V and A): Y and A rows of max(width,
    // minBytesPerLineY) bytes; U and V rows of half that for 4:2:0 and 4:2:2 (else the width),
    // at least their own minimum, over half the rows for 4:2:0. Each plane has its alignment.
    VideoFrameQt(int width, int height, OrvoPixelFormat format, const BufferProperties& props);
    VideoFrameQt(int numBytes, int width, int height, int bytesPerLine, OrvoPixelFormat format, bool separate);
    VideoFrameQt(int numBytes, int width, int height, int bytesPerLine, OrvoPixelFormat format);
    VideoFrameQt(int numBytes, int width, int height, int bytesPerLine, QVideoFrame::PixelFormat format);
    VideoFrameQt(int numBytes, int width, int height, int bytesPerLine, OrvoPixelFormat format, int align);
    VideoFrameQt(QAbstractVideoBuffer* y, QAbstractVideoBuffer* u, QAbstractVideoBuffer* v, const QSize& size,
                 OrvoPixelFormat format);
    VideoFrameQt(QAbstractVideoBuffer* y, QAbstractVideoBuffer* u, QAbstractVideoBuffer* v, QAbstractVideoBuffer* a,
                 const QSize& size, OrvoPixelFormat format);
    VideoFrameQt(QAbstractVideoBuffer* buffer, const QSize& size, OrvoPixelFormat format);
    VideoFrameQt(QAbstractVideoBuffer* buffer, const QSize& size, QVideoFrame::PixelFormat format);
    VideoFrameQt(const QVideoFrame& y, const QVideoFrame& u, const QVideoFrame& v, OrvoPixelFormat format);
    VideoFrameQt(const QVideoFrame& y, const QVideoFrame& u, const QVideoFrame& v, const QVideoFrame& a,
                 OrvoPixelFormat format);
    explicit VideoFrameQt(const Image& image);
    explicit VideoFrameQt(const QImage& image);
    // Shares the planes and copies part of the metadata; `useAlpha` becomes true and
    // `hasImage` false whatever the source had (timings, decorations and load time start fresh).
    VideoFrameQt(const VideoFrameQt& other);
    VideoFrameQt(VideoFrameQt&& other) noexcept = default;
    VideoFrameQt& operator=(const VideoFrameQt&) = delete;
    ~VideoFrameQt();

    // --- plane access (valid while mapped) -------------------------------------
    unsigned char* bits() const { return planeY.bits(); }
    unsigned char* bitsY() const { return planeY.bits(); }
    unsigned char* bitsU() const { return planeU.bits(); }
    unsigned char* bitsV() const { return planeV.bits(); }
    unsigned char* bitsA() const { return planeA.bits(); }
    unsigned int bytesPerLine() const { return unsigned(planeY.bytesPerLine()); }
    unsigned int bytesPerLineY() const { return unsigned(planeY.bytesPerLine()); }
    unsigned int bytesPerLineU() const { return unsigned(planeU.bytesPerLine()); }
    unsigned int bytesPerLineV() const { return unsigned(planeV.bytesPerLine()); }
    unsigned int bytesPerLineA() const { return unsigned(planeA.bytesPerLine()); }
    int width() const { return planeY.width(); }
    int widthY() const { return planeY.width(); }
    int widthU() const { return planeU.width(); }
    int widthV() const { return planeV.width(); }
    int widthA() const { return planeA.width(); }
    int height() const { return planeY.height(); }
    int heightY() const { return planeY.height(); }
    int heightU() const { return planeU.height(); }
    int heightV() const { return planeV.height(); }
    int heightA() const { return planeA.height(); }
    int mappedBytes() const { return planeY.mappedBytes(); }
    int mappedBytesY() const { return planeY.mappedBytes(); }
    int mappedBytesU() const { return planeU.mappedBytes(); }
    int mappedBytesV() const { return planeV.mappedBytes(); }
    int mappedBytesA() const { return planeA.mappedBytes(); }
    // Row starts; the row is not checked.
    unsigned char* lineY(int row) const { return bitsY() + size_t(unsigned(row)) * bytesPerLineY(); }
    unsigned char* lineU(int row) const { return bitsU() + size_t(unsigned(row)) * bytesPerLineU(); }
    unsigned char* lineV(int row) const { return bitsV() + size_t(unsigned(row)) * bytesPerLineV(); }
    QVideoFrame qVideoFrameY() const { return planeY; }
    QVideoFrame qVideoFrameU() const { return planeU; }
    QVideoFrame qVideoFrameV() const { return planeV; }
    QVideoFrame qVideoFrameA() const { return planeA; }

    // --- metadata ---------------------------------------------------------------
    bool useAlpha() const { return useAlpha_; }
    bool areSeparatePlanes() const { return separatePlanes_; }
    OrvoPixelFormat pixelFormat() const;
    quint64 id() const { return id_; }
    void setId(quint64 id) { id_ = id; }
    quint32 streamId() const { return streamId_; }
    void setStreamId(unsigned int id) { streamId_ = id; }
    unsigned short getScaleX() const { return scaleX_; }
    unsigned short getScaleY() const { return scaleY_; }
    void setScale(unsigned short x, unsigned short y) { scaleX_ = x; scaleY_ = y; }
    QByteArray viewName() const { return viewName_; }
    void setViewName(const QByteArray& name) { viewName_ = name; }
    QByteArray attachedData() const { return attachedData_; }
    QByteArray& attachedData(QByteArray& out) const { out = attachedData_; return out; }
    void setAttachedData(const QByteArray& data) { attachedData_ = data; }
    int maximalWidth() const { return maximalWidth_; }
    int maximalHeight() const { return maximalHeight_; }
    void setMaximalWidth(int w) { maximalWidth_ = w; }
    void setMaximalHeight(int h) { maximalHeight_ = h; }
    qint64 decodingDurationNanoSecs() const { return decodingDurationNanoSecs_; }
    void setDecodingDurationNanoSecs(qint64 ns) { decodingDurationNanoSecs_ = ns; }
    bool isDamaged() const { return damaged_; }
    void setDamaged(bool damaged) { damaged_ = damaged; }
    Image image() const { return image_; }
    const Image& imageRef() const { return image_; }
    void setImage(const Image& image) { image_ = image; hasImage_ = true; }
    bool hasImage() const { return hasImage_; }
    std::list<QRect>& decorationsRectsRef() { return decorationsRects_; }
    RenderingTimings& timingInfoRef() const { return renderTimings_; }
    ElapsedTimer elapsedTimerSinceImageLoad() const { return elapsedTimerSinceImageLoad_; }
    void setElapsedTimerSinceImageLoad(const ElapsedTimer& t) { elapsedTimerSinceImageLoad_ = t; }
    qint64 imageClientSystemLoadTimeMSecsSinceEpoch() const { return imageClientSystemLoadTimeMSecsSinceEpoch_; }
    void setImageClientSystemLoadTimeMSecsSinceEpoch(qint64 ms) { imageClientSystemLoadTimeMSecsSinceEpoch_ = ms; }
    // Copies id, attachedData, viewName, streamId, image and decodingDurationNanoSecs only.
    void setSomeParametersFrom(const VideoFrameQt& other);

    // --- state ------------------------------------------------------------------
    bool isNull() const { return !planeY.isValid() && !hasImage_; }
    bool isValid() const { return planeY.isValid(); }
    bool isNullImage() const { return image_.isNull(); }
    bool isValidImage() const { return !image_.isNull(); }
    bool isMapped() const { return planeY.isMapped() && planeU.isMapped() && planeV.isMapped(); }
    // Mapping for writing (WriteOnly or ReadWrite) first detaches a frame over read-only
    // memory (see detach); false when that fails.
    bool map(MapMode mode) const;
    bool map() const { return map(QAbstractVideoBuffer::ReadOnly); }
    bool mapIfNotMapped(MapMode mode) const { return isMapped() || map(mode); }
    bool mapIfNotMapped() const { return mapIfNotMapped(QAbstractVideoBuffer::ReadOnly); }
    void unmap() const;
    MapMode mapMode() const { return planeY.mapMode(); }

    // --- copy on write ------------------------------------------------------------------
    // True when a plane is read-only memory, as the planes of a zero-copy decoder picture
    // are (the decoder still references them for the pictures that follow).
    bool sharesReadOnlyMemory() const;
    // Gives this body planes of its own (allocated as by the width/height/format/
    // BufferProperties constructor with the default properties, alpha only if the frame had
    // one) carrying the same pixels, and keeps the map state. Does nothing on a frame that
    // shares no read-only memory. Body copies made before keep the shared pixels. Every
    // write path calls it: map for writing, the fills, blend, QImage import, scaleTo into
    // the frame. False when the planes cannot be allocated or mapped (nothing changes then).
    bool detach() const;

    // --- plane geometry ------------------------------------------------------------
    static int horizontalDecimationUV(OrvoPixelFormat format);
    static int verticalDecimationUV(OrvoPixelFormat format);
    static int planeUVWidth(OrvoPixelFormat format, int width);
    static int planeUVHeight(OrvoPixelFormat format, int height);
    static QSize planeUVSize(const QSize& size, OrvoPixelFormat format);
    static int xPosPlaneUV(OrvoPixelFormat format, int x);
    static int yPosPlaneUV(OrvoPixelFormat format, int y);
    int xPosPlaneUV(int x) const { return xPosPlaneUV(pixelFormat(), x); }
    int yPosPlaneUV(int y) const { return yPosPlaneUV(pixelFormat(), y); }
    // For Format_YUV420P: turns whole-picture geometry into one chroma plane's (halving,
    // truncating) and returns true; any other format: false, arguments unchanged.
    static bool planeUVGeometry(int& numBytes, QSize& size, int& bytesPerLine, OrvoPixelFormat& format);

    // --- deep copies ----------------------------------------------------------------
    VideoFrameQt clone(const BufferProperties& properties) const;
    VideoFrameQt clone(int align, bool withAlpha) const;
    // The metadata every deep copy carries: scale, attachedData, id, streamId, image and
    // decoding time, with hasImage set; not viewName, which only some copies take.
    void copyCloneMetadataTo(VideoFrameQt& out) const;

    // --- fills (the caller maps the frame for writing first) ---------------------------
    void fill(int yValue, int uValue, int vValue, int x, int y, int width, int height);
    void fill(unsigned int rgb, const QRect& r);
    void fill(QColor c, const QRect& r);
    void fillRgb(unsigned int rgb, const Rect& r);
    void fillYuv(unsigned int yuv, const Rect& r);
    void fillY(unsigned char value, const Rect& r);
    void fillU(unsigned char value, const Rect& r);
    void fillV(unsigned char value, const Rect& r);

    // --- scaling and conversion (see scale_context.h for the threading rules) ---------
    bool scaleTo(VideoFrameQt& dst, ScaleContext& ctx, int x, int y, int width, int height) const;
    bool scaleTo(VideoFrameQt& dst, int x, int y, int width, int height) const;
    // Uses one process-wide cached swscale context: call from one thread at a time.
    QImage convertToQImage(OrvoPixelFormat format, int x, int y, int width, int height, int imageWidth,
                           int imageHeight, int widthNumerator, int widthDenominator, int heightNumerator,
                           int heightDenominator) const;

private:
    friend class VideoFrame;

    mutable QVideoFrame planeY;
    mutable QVideoFrame planeU;
    mutable QVideoFrame planeV;
    mutable QVideoFrame planeA;
    bool useAlpha_ = false;
    bool separatePlanes_ = false;
    OrvoPixelFormat pixelFormat_ = Format_Invalid;
    unsigned short scaleX_ = 1;
    unsigned short scaleY_ = 1;
    quint64 id_ = 0;
    QByteArray attachedData_;
    quint32 streamId_ = 0;
    Image image_;
    bool hasImage_ = false;
    qint64 decodingDurationNanoSecs_ = 0;
    bool damaged_ = false;
    ElapsedTimer elapsedTimerSinceImageLoad_;
    qint64 imageClientSystemLoadTimeMSecsSinceEpoch_ = 0;
    QByteArray viewName_;
    int maximalWidth_ = 0;
    int maximalHeight_ = 0;
    std::list<QRect> decorationsRects_;
    mutable RenderingTimings renderTimings_;
};

}  // namespace orvo
