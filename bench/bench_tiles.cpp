// Pictures at the size a wall shows them: 1080p camera streams shown as 480x270 tiles.
//   Motion JPEG (noisy, about 300 KB a picture): the decoder told the tile size (FFmpeg's
//   reduced resolution) against a full decode followed by scaleTo to the tile;
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
    compare("H.264 1080p at 480x270: scaled in the decode / full + client scaleTo", h264Clip(), 'h', "<= 1.05");
    return 0;
}
