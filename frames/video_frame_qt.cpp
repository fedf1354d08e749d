#include "orvo/video_frame_qt.h"

#include <QtGlobal>

namespace orvo {

namespace {

// A Format_Y8 plane over an own-allocated aligned buffer. Sizes are computed in 64 bits:
// a product that does not fit a plane buffer gives an empty buffer whose map fails.
QVideoFrame alignedPlane(qint64 bytes, int bytesPerLine, int align, const QSize& size)
{
    const int n = bytes > INT32_MAX ? -1 : int(bytes);
    return QVideoFrame(new MemoryVideoBuffer(n, bytesPerLine, unsigned(align)), size, QVideoFrame::Format_Y8);
}

}  // namespace

VideoFrameQt::VideoFrameQt() = default;
VideoFrameQt::~VideoFrameQt() = default;

VideoFrameQt::VideoFrameQt(int width, int height, OrvoPixelFormat format, const BufferProperties& p)
    : useAlpha_(true), separatePlanes_(true), pixelFormat_(format)
{
    const int w = qMax(width, 0);
    const int h = qMax(height, 0);
    const int L = qMax(w, p.minBytesPerLineY);
    const bool sub = format == Format_YUV420P || format == Format_YUV422P;
    const int bplUV = sub ? qMax((L + 1) / 2, p.minBytesPerLineU) : qMax(w, p.minBytesPerLineU);
    const qint64 bytesUV = format == Format_YUV420P ? qint64(bplUV) * ((h + 1) / 2) : qint64(bplUV) * h;
    const QSize sizeY(w, h);
    const QSize sizeUV(planeUVWidth(format, w), planeUVHeight(format, h));
    planeY = alignedPlane(qint64(L) * h, L, p.alignY, sizeY);
    planeU = alignedPlane(bytesUV, bplUV, p.alignU, sizeUV);
    planeV = alignedPlane(bytesUV, bplUV, p.alignV, sizeUV);
    planeA = alignedPlane(qint64(L) * h, L, p.alignA, sizeY);
}

VideoFrameQt::VideoFrameQt(int numBytes, int width, int height, int bytesPerLine, OrvoPixelFormat format,
                           bool separate)
    : useAlpha_(true), separatePlanes_(separate), pixelFormat_(format)
{
    const QVideoFrame::PixelFormat yFormat =
        separate ? QVideoFrame::Format_Y8 : QVideoFrame::PixelFormat(int(format));
    planeY = QVideoFrame(numBytes, QSize(width, height), bytesPerLine, yFormat);
    if (!separate)
        return;
    int n = numBytes;
    QSize s(width, height);
    int bpl = bytesPerLine;
    OrvoPixelFormat f = format;
    planeUVGeometry(n, s, bpl, f);
    const QVideoFrame::PixelFormat qf = QVideoFrame::PixelFormat(int(f));
    planeU = QVideoFrame(n, s, bpl, qf);
    planeV = QVideoFrame(n, s, bpl, qf);
    planeA = QVideoFrame(n, s, bpl, qf);
}

VideoFrameQt::VideoFrameQt(int numBytes, int width, int height, int bytesPerLine, OrvoPixelFormat format)
    : planeY(numBytes, QSize(width, height), bytesPerLine, QVideoFrame::PixelFormat(int(format))), pixelFormat_(format)
{
}

VideoFrameQt::VideoFrameQt(int numBytes, int width, int height, int bytesPerLine, QVideoFrame::PixelFormat format)
    : VideoFrameQt(numBytes, width, height, bytesPerLine, OrvoPixelFormat(int(format)))
{
}

VideoFrameQt::VideoFrameQt(int numBytes, int width, int height, int bytesPerLine, OrvoPixelFormat format, int align)
    : planeY(new MemoryVideoBuffer(numBytes, bytesPerLine, unsigned(align)), QSize(width, height),
             QVideoFrame::PixelFormat(int(format))),
      pixelFormat_(format)
{
}

// Planes are made in the initialiser list: a QVideoFrame made empty and assigned later
// allocates its private twice, and decoders make a frame with these for every picture.
VideoFrameQt::VideoFrameQt(QAbstractVideoBuffer* y, QAbstractVideoBuffer* u, QAbstractVideoBuffer* v,
                           const QSize& size, OrvoPixelFormat format)
    : VideoFrameQt(y, u, v, nullptr, size, format)
{
    useAlpha_ = false;
}

VideoFrameQt::VideoFrameQt(QAbstractVideoBuffer* y, QAbstractVideoBuffer* u, QAbstractVideoBuffer* v,
                           QAbstractVideoBuffer* a, const QSize& size, OrvoPixelFormat format)
    : planeY(y, size, QVideoFrame::Format_Y8),
      planeU(u, planeUVSize(size, format), QVideoFrame::Format_Y8),
      planeV(v, planeUVSize(size, format), QVideoFrame::Format_Y8),
      planeA(a ? QVideoFrame(a, size, QVideoFrame::Format_Y8) : QVideoFrame()),
      useAlpha_(true),
      separatePlanes_(true),
      pixelFormat_(format)
{
}

VideoFrameQt::VideoFrameQt(QAbstractVideoBuffer* buffer, const QSize& size, OrvoPixelFormat format)
    : planeY(buffer, size, QVideoFrame::PixelFormat(int(format))), pixelFormat_(format)
{
}

VideoFrameQt::VideoFrameQt(QAbstractVideoBuffer* buffer, const QSize& size, QVideoFrame::PixelFormat format)
    : VideoFrameQt(buffer, size, OrvoPixelFormat(int(format)))
{
}

VideoFrameQt::VideoFrameQt(const QVideoFrame& y, const QVideoFrame& u, const QVideoFrame& v, OrvoPixelFormat format)
    : planeY(y), planeU(u), planeV(v), separatePlanes_(true), pixelFormat_(format)
{
}

VideoFrameQt::VideoFrameQt(const QVideoFrame& y, const QVideoFrame& u, const QVideoFrame& v, const QVideoFrame& a,
                           OrvoPixelFormat format)
    : planeY(y), planeU(u), planeV(v), planeA(a), useAlpha_(true), separatePlanes_(true), pixelFormat_(format)
{
}

VideoFrameQt::VideoFrameQt(const Image& image) : image_(image) {}

VideoFrameQt::VideoFrameQt(const QImage& image)
    : planeY(image),
      pixelFormat_(OrvoPixelFormat(int(QVideoFrame::pixelFormatFromImageFormat(image.format()))))
{
}

VideoFrameQt::VideoFrameQt(const VideoFrameQt& o)
    : planeY(o.planeY),
      planeU(o.planeU),
      planeV(o.planeV),
      planeA(o.planeA),
      useAlpha_(true),
      separatePlanes_(o.separatePlanes_),
      pixelFormat_(o.pixelFormat_),
      scaleX_(o.scaleX_),
      scaleY_(o.scaleY_),
      id_(o.id_),
      attachedData_(o.attachedData_),
      streamId_(o.streamId_),
      image_(o.image_),
      hasImage_(false),
      decodingDurationNanoSecs_(o.decodingDurationNanoSecs_),
      damaged_(o.damaged_),
      viewName_(o.viewName_),
      maximalWidth_(o.maximalWidth_),
      maximalHeight_(o.maximalHeight_)
{
}

VideoFrameQt::OrvoPixelFormat VideoFrameQt::pixelFormat() const
{
    return separatePlanes_ ? pixelFormat_ : OrvoPixelFormat(int(planeY.pixelFormat()));
}

void VideoFrameQt::setSomeParametersFrom(const VideoFrameQt& o)
{
    id_ = o.id_;
    attachedData_ = o.attachedData_;
    viewName_ = o.viewName_;
    streamId_ = o.streamId_;
    image_ = o.image_;
    decodingDurationNanoSecs_ = o.decodingDurationNanoSecs_;
}

bool VideoFrameQt::map(MapMode mode) const
{
    if ((mode & QAbstractVideoBuffer::WriteOnly) && !detach())
        return false;
    if (!separatePlanes_)
        return planeY.map(mode);
    if (!planeU.map(mode))
        return false;
    if (!planeV.map(mode)) {
        planeU.unmap();
        return false;
    }
    const bool alpha = planeA.isValid();
    if (alpha && !planeA.map(mode)) {
        planeU.unmap();
        planeV.unmap();
        return false;
    }
    if (planeY.map(mode))
        return true;
    planeU.unmap();
    planeV.unmap();
    if (alpha)
        planeA.unmap();
    return false;
}

void VideoFrameQt::unmap() const
{
    if (planeY.isMapped())
        planeY.unmap();
    if (!separatePlanes_)
        return;
    if (planeA.isValid() && planeA.isMapped())
        planeA.unmap();
    if (planeV.isMapped())
        planeV.unmap();
    if (planeU.isMapped())
        planeU.unmap();
}

int VideoFrameQt::horizontalDecimationUV(OrvoPixelFormat f)
{
    return (f == Format_YUV420P || f == Format_YUV422P) ? 2 : 1;
}

int VideoFrameQt::verticalDecimationUV(OrvoPixelFormat f) { return f == Format_YUV420P ? 2 : 1; }

int VideoFrameQt::planeUVWidth(OrvoPixelFormat f, int width)
{
    return (f == Format_YUV420P || f == Format_YUV422P) ? (width + 1) / 2 : width;
}

int VideoFrameQt::planeUVHeight(OrvoPixelFormat f, int height)
{
    return f == Format_YUV420P ? (height + 1) / 2 : height;
}

QSize VideoFrameQt::planeUVSize(const QSize& size, OrvoPixelFormat f)
{
    return QSize(planeUVWidth(f, size.width()), planeUVHeight(f, size.height()));
}

int VideoFrameQt::xPosPlaneUV(OrvoPixelFormat f, int x)
{
    return (f == Format_YUV420P || f == Format_YUV422P) ? x / 2 : x;
}

int VideoFrameQt::yPosPlaneUV(OrvoPixelFormat f, int y) { return f == Format_YUV420P ? y / 2 : y; }

bool VideoFrameQt::planeUVGeometry(int& numBytes, QSize& size, int& bytesPerLine, OrvoPixelFormat& format)
{
    if (format != Format_YUV420P)
        return false;
    size = QSize(size.width() / 2, size.height() / 2);
    bytesPerLine /= 2;
    numBytes /= 4;
    format = Format_Y8;
    return true;
}

}  // namespace orvo
