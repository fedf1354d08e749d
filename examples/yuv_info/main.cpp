// Smallest use of the library: wrap a raw YUV picture into a frame and print its geometry.
#include <orvo/video_frame.h>

#include <cstdio>
#include <cstring>

int main()
{
    using orvo::VideoFrame;
    const int width = 642, height = 362;
    VideoFrame frame(width, height, VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
    if (!frame.map(QAbstractVideoBuffer::WriteOnly)) {
        std::fprintf(stderr, "could not map frame\n");
        return 1;
    }
    for (int row = 0; row < frame.heightY(); ++row)
        std::memset(frame.lineY(row), 16 + row % 220, size_t(frame.widthY()));
    std::printf("%s %dx%d  Y %dx%d/%u  U %dx%d/%u  V %dx%d/%u\n",
                qPrintable(VideoFrame::pixelFormatName(frame.pixelFormat())), frame.width(), frame.height(),
                frame.widthY(), frame.heightY(), frame.bytesPerLineY(), frame.widthU(), frame.heightU(),
                frame.bytesPerLineU(), frame.widthV(), frame.heightV(), frame.bytesPerLineV());
    frame.unmap();
    return 0;
}
