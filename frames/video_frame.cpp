#include "orvo/video_frame.h"

namespace orvo {

namespace {
const Image& nullImage()
{
    static const Image image;
    return image;
}
RenderingTimings& scratchTimings()
{
    // A null frame has no timings of its own; callers get a scratch record.
    thread_local RenderingTimings timings;
    timings.clear();
    return timings;
}
}  // namespace

VideoFrame& VideoFrame::operator=(const VideoFrame& other)
{
    if (d != other.d)
        d = other.d;
    return *this;
}

VideoFrame::VideoFrame(int width, int height, OrvoPixelFormat format, const BufferProperties& props)
    : d(std::make_shared<VideoFrameQt>(width, height, format, props))
{
}

VideoFrame::VideoFrame(int numBytes, int width, int height, int bytesPerLine, OrvoPixelFormat format, bool separate)
    : d(std::make_shared<VideoFrameQt>(numBytes, width, height, bytesPerLine, format, separate))
{
}

VideoFrame::VideoFrame(int numBytes, int width, int height, int bytesPerLine, OrvoPixelFormat format)
    : d(std::make_shared<VideoFrameQt>(numBytes, width, height, bytesPerLine, format))
{
}

VideoFrame::VideoFrame(int numBytes, int width, int height, int bytesPerLine, OrvoPixelFormat format, int align)
    : d(std::make_shared<VideoFrameQt>(numBytes, width, height, bytesPerLine, format, align))
{
}

VideoFrame::VideoFrame(QAbstractVideoBuffer* y, QAbstractVideoBuffer* u, QAbstractVideoBuffer* v, const QSize& size,
                       OrvoPixelFormat format)
    : d(std::make_shared<VideoFrameQt>(y, u, v, size, format))
{
}

VideoFrame::VideoFrame(QAbstractVideoBuffer* buffer, const QSize& size, OrvoPixelFormat format)
    : d(std::make_shared<VideoFrameQt>(buffer, size, format))
{
}

VideoFrame::VideoFrame(const QVideoFrame& y, const QVideoFrame& u, const QVideoFrame& v, OrvoPixelFormat format)
    : d(std::make_shared<VideoFrameQt>(y, u, v, format))
{
}

VideoFrame::VideoFrame(const QVideoFrame& y, const QVideoFrame& u, const QVideoFrame& v, const QVideoFrame& a,
                       OrvoPixelFormat format)
    : d(std::make_shared<VideoFrameQt>(y, u, v, a, format))
{
}

VideoFrame::VideoFrame(const Image& image) : d(std::make_shared<VideoFrameQt>(image)) {}

VideoFrame::VideoFrame(const QImage& image) : d(std::make_shared<VideoFrameQt>(image)) {}

VideoFrame::VideoFrame(QImage& image, const VideoFrame& metadataSource)
    : d(metadataSource.d ? std::make_shared<VideoFrameQt>(*metadataSource.d) : std::make_shared<VideoFrameQt>())
{
    VideoFrameQt picture(image);
    d->planeY = picture.planeY;
    d->planeU = QVideoFrame();
    d->planeV = QVideoFrame();
    d->planeA = QVideoFrame();
    d->separatePlanes_ = false;
    d->pixelFormat_ = picture.pixelFormat_;
    d->useAlpha_ = false;
}

VideoFrameQt* VideoFrame::body_()
{
    if (!d)
        d = std::make_shared<VideoFrameQt>();
    return d.get();
}

const Image& VideoFrame::imageRef() const { return d ? d->imageRef() : nullImage(); }

RenderingTimings& VideoFrame::renderTimings() const { return d ? d->timingInfoRef() : scratchTimings(); }

void VideoFrame::attachImageData(const Image& image, quint32 payloadSize)
{
    ImageHeader header;
    if (!ImageHeader::parse(image.generateNetworkImageHeader(ImageHeaderVersion::V1), header))
        return;
    header.payloadSize = payloadSize;
    setAttachedData(header.serialize() + image.attachedData());
}

bool VideoFrame::planeUVGeometry(int& numBytes, int& width, int& height, int& bytesPerLine, OrvoPixelFormat& format)
{
    QSize size(width, height);
    if (!VideoFrameQt::planeUVGeometry(numBytes, size, bytesPerLine, format))
        return false;
    width = size.width();
    height = size.height();
    return true;
}

QString VideoFrame::pixelFormatName(OrvoPixelFormat format)
{
    switch (format) {
    case Format_Invalid: return QStringLiteral("Format_Invalid");
    case Format_ARGB32: return QStringLiteral("Format_ARGB32");
    case Format_ARGB32_Premultiplied: return QStringLiteral("Format_ARGB32_Premultiplied");
    case Format_RGB32: return QStringLiteral("Format_RGB32");
    case Format_RGB24: return QStringLiteral("Format_RGB24");
    case Format_RGB565: return QStringLiteral("Format_RGB565");
    case Format_RGB555: return QStringLiteral("Format_RGB555");
    case Format_ARGB8565_Premultiplied: return QStringLiteral("Format_ARGB8565_Premultiplied");
    case Format_BGRA32_Premultiplied: return QStringLiteral("Format_BGRA32_Premultiplied");
    case Format_BGR32: return QStringLiteral("Format_BGR32");
    case Format_BGR24: return QStringLiteral("Format_BGR24");
    case Format_BGR565: return QStringLiteral("Format_BGR565");
    case Format_BGR555: return QStringLiteral("Format_BGR555");
    case Format_BGRA5658_Premultiplied: return QStringLiteral("Format_BGRA5658_Premultiplied");
    case Format_AYUV444: return QStringLiteral("Format_AYUV444");
    case Format_AYUV444_Premultiplied: return QStringLiteral("Format_AYUV444_Premultiplied");
    case Format_YUV444: return QStringLiteral("Format_YUV444");
    case Format_YUV420P: return QStringLiteral("Format_YUV420P");
    case Format_YV12: return QStringLiteral("Format_YV12");
    case Format_UYVY: return QStringLiteral("Format_UYVY");
    case Format_YUYV: return QStringLiteral("Format_YUYV");
    case Format_NV12: return QStringLiteral("Format_NV12");
    case Format_NV21: return QStringLiteral("Format_NV21");
    case Format_IMC1: return QStringLiteral("Format_IMC1");
    case Format_IMC2: return QStringLiteral("Format_IMC2");
    case Format_IMC3: return QStringLiteral("Format_IMC3");
    case Format_IMC4: return QStringLiteral("Format_IMC4");
    case Format_Y8: return QStringLiteral("Format_Y8");
    case Format_Y16: return QStringLiteral("Format_Y16");
    case Format_User: return QStringLiteral("Format_User");
    case Format_YUV422P: return QStringLiteral("Format_YUV422P");
    case Format_YUV444P: return QStringLiteral("Format_YUV444P");
    }
    return QStringLiteral("Unregistred format");
}

}  // namespace orvo
