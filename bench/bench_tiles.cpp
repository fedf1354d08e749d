// Pictures at the size a wall shows them: 1080p camera streams shown as 480x270 tiles.
//   Motion JPEG (noisy, about 300 KB a picture): the decoder told the tile size (FFmpeg's
//   reduced resolution) against a full decode followed by scaleTo to the tile;
//   MPEG-4 Visual (noisy, key picture every second): the same, FFmpeg's reduced resolution
//   chosen at each VOL header + I-VOP;
//   MxPEG: the Motion JPEG clip sent as a camera does, an I-frame every second and P-frames
//   between that carry every macroblock (sensor noise changes them all);
//   H.264: the decoder told the tile size (full decode, scaled inside the decode) against
//   a full decode followed by the client's own scaleTo.
// CPU per picture of each side, interleaved rounds (ORVO_BENCH_ROUNDS), median ratio.
#include "bench_clips.h"
#include "bench_report.h"
#include "orvo/decoder.h"
#include "orvo/image.h"

#include <QCoreApplication>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using orvo::bench::Packet;
using orvo::bench::processCpuSeconds;

const QSize kTile(480, 270);

std::vector<Packet> mjpegClip()
{
    // Sensor-like noise keeps the pictures large, as installed cameras send them: there the
    // entropy decoding that every factor pays dominates.
    return orvo::bench::annexBClip("bench_tiles_data", "camera1080p.mjpeg",
                                   "-f lavfi -i testsrc2=size=1920x1080:rate=25,noise=alls=9:allf=t -frames:v 100 "
                                   "-c:v mjpeg -pix_fmt yuvj420p -q:v 4 -f mjpeg");
}

std::vector<Packet> mpeg4Clip()
{
    return orvo::bench::annexBClip("bench_tiles_data", "camera1080p_mpeg4.avi",
                                   "-f lavfi -i testsrc2=size=1920x1080:rate=25,noise=alls=8:allf=t -frames:v 100 "
                                   "-c:v mpeg4 -q:v 4 -g 25 -bf 0 -f avi");
}

// A P-frame carrying every macroblock of JPEG `jpeg`: an "MXM" comment with the macroblock
// bitmask, the JPEG's tables and its scan, no frame header.
QByteArray mxpegPFrame(const QByteArray& jpeg, int width, int height)
{
    const int mbw = (width + 15) / 16, mbh = (height + 15) / 16;
    const char header[12] = {'M', 'X', 'M', 0, char(mbw), char(mbw >> 8), char(mbh), char(mbh >> 8)};
    const QByteArray mxm = QByteArray(header, sizeof header) + QByteArray((mbw * mbh + 7) / 8, char(0xff));
    QByteArray out = QByteArray("\xff\xd8\xff\xfe", 4) + char((mxm.size() + 2) >> 8) + char(mxm.size() + 2) + mxm;
    for (int i = 2; i + 4 <= jpeg.size();) {
        const uchar marker = uchar(jpeg[i + 1]);
        const int length = (uchar(jpeg[i + 2]) << 8) | uchar(jpeg[i + 3]);
        if (marker == 0xDA)
            return out + jpeg.mid(i);
        if (marker == 0xDB || marker == 0xC4)
            out += jpeg.mid(i, 2 + length);
        i += 2 + length;
    }
    return QByteArray();
}

std::vector<Packet> mxpegClip()
{
    std::vector<Packet> clip = mjpegClip();
    for (size_t i = 0; i < clip.size(); ++i) {
        clip[i].key = i % 25 == 0;
        if (!clip[i].key)
            clip[i].data = mxpegPFrame(clip[i].data, 1920, 1080);
    }
    return clip;
}

std::vector<Packet> h264Clip()
{
    return orvo::bench::annexBClip("bench_tiles_data", "camera1080p.h264",
                                   "-f lavfi -i testsrc2=size=1920x1080:rate=25,noise=alls=8:allf=t -frames:v 100 "
                                   "-c:v libx264 -preset veryfast -bf 0 -g 25 -b:v 4M -pix_fmt yuv420p -f h264");
}

// CPU milliseconds per picture for one pass over the clip; `tile`: the decoder is told the
// tile size, otherwise every picture is scaled to it afterwards as a client would.
double pass(const std::vector<Packet>& clip, quint8 code, bool tile)
{
    Decoder decoder;
    if (tile)
        decoder.setMaxOutputSize(kTile);
    orvo::VideoFrame shown(kTile.width(), kTile.height(), orvo::VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
    int pictures = 0;
    const double cpu0 = processCpuSeconds();
    quint64 id = 0;
    for (const Packet& p : clip) {
        orvo::Image image(code, p.data, ++id, qint64(id) * 40, p.key);
        orvo::VideoFrame frame;
        if (decoder.decodeImage(image, frame) != Decoder::ImageResult::Picture)
            continue;
        ++pictures;
        if (!tile)
            frame.scaleTo(shown, 0, 0, -1, -1);
        else if (frame.width() > kTile.width() || frame.height() > kTile.height())
            std::fprintf(stderr, "a picture of %dx%d came out\n", frame.width(), frame.height());
    }
    return pictures ? 1000 * (processCpuSeconds() - cpu0) / pictures : 0;
}

void compare(const std::string& what, const std::vector<Packet>& clip, quint8 code, const std::string& goal)
{
    if (clip.empty()) {
        std::printf("%s: no clip (is ffmpeg installed?)\n", what.c_str());
        return;
    }
    // "Rates" here are CPU milliseconds per picture, so the ratio reads ours / theirs CPU.
    const orvo::bench::Comparison c = orvo::bench::interleave(
        orvo::bench::rounds(), [&] { return pass(clip, code, true); }, [&] { return pass(clip, code, false); });
    orvo::bench::report(what, c, "cpu-ms/pic", goal);
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    compare("Motion JPEG 1080p at 480x270: reduced decode / full + scaleTo", mjpegClip(), 'j', "<= 0.75");
    compare("MPEG-4 Visual 1080p at 480x270: reduced decode / full + scaleTo", mpeg4Clip(), 'm', "< 1");
    compare("MxPEG 1080p at 480x270: reduced decode / full + scaleTo", mxpegClip(), 'x', "< 1");
    compare("H.264 1080p at 480x270: scaled in the decode / full + client scaleTo", h264Clip(), 'h', "<= 1.05");
    return 0;
}
