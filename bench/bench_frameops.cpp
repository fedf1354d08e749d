// Frame operations against their plain baselines on a 1080p 4:2:0 picture:
//   convertToQImage (full and half size) vs sws_scale on the same planes with the same flags,
//   clone vs memcpy of the same plane bytes, scaleTo 1080p -> 360p vs sws_scale.
// Both sides of each pair run in interleaved rounds; each ratio is the median of the
// per-round ours / baseline throughput (1.0 = as fast as the baseline).
#include "bench_report.h"
#include "orvo/scale_context.h"
#include "orvo/video_frame.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/mem.h>
#include <libswscale/swscale.h>
}

using orvo::VideoFrame;

namespace {

constexpr int kW = 1920;
constexpr int kH = 1080;

VideoFrame picture()
{
    static VideoFrame frame = [] {
        VideoFrame f(kW, kH, VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
        f.map(QAbstractVideoBuffer::WriteOnly);
        for (int y = 0; y < kH; ++y)
            for (int x = 0; x < kW; ++x)
                f.lineY(y)[x] = uchar((x * 7 + y * 3 + (x * y >> 9)) & 255);
        for (int y = 0; y < kH / 2; ++y)
            for (int x = 0; x < kW / 2; ++x) {
                f.lineU(y)[x] = uchar(64 + ((x + y) & 127));
                f.lineV(y)[x] = uchar(192 - ((x * 3 + y) & 127));
            }
        f.unmap();
        return f;
    }();
    return frame;
}

// A BGRA buffer with the padded rows the library's QImages have.
struct Bgra {
    Bgra(int w, int h) : stride((w * 4 + 32 + 63) / 64 * 64), data(static_cast<uint8_t*>(av_malloc(size_t(stride) * h + 128))) {}
    ~Bgra() { av_free(data); }
    int stride;
    uint8_t* data;
};

// Operations per CPU second over a fixed number of repetitions.
template <class Op>
double rate(Op&& op)
{
    constexpr int kReps = 20;
    const double t0 = orvo::bench::processCpuSeconds();
    for (int i = 0; i < kReps; ++i)
        op();
    const double s = orvo::bench::processCpuSeconds() - t0;
    return s > 0 ? kReps / s : 0;
}

double swsToBgra(int outW, int outH)
{
    VideoFrame f = picture();
    f.map();
    Bgra out(outW, outH);
    SwsContext* c = nullptr;
    const uint8_t* src[4] = {f.bitsY(), f.bitsU(), f.bitsV(), nullptr};
    const int ss[4] = {int(f.bytesPerLineY()), int(f.bytesPerLineU()), int(f.bytesPerLineV()), 0};
    uint8_t* dst[4] = {out.data, nullptr, nullptr, nullptr};
    const int ds[4] = {out.stride, 0, 0, 0};
    const double r = rate([&] {
        c = sws_getCachedContext(c, kW, kH, AV_PIX_FMT_YUV420P, outW, outH, AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr,
                                 nullptr, nullptr);
        sws_scale(c, src, ss, 0, kH, dst, ds);
        benchmark::DoNotOptimize(out.data);
    });
    sws_freeContext(c);
    f.unmap();
    return r;
}

double oursToQImage(int den)
{
    const VideoFrame f = picture();
    return rate([&] {
        QImage image = f.convertToQImage(VideoFrame::Format_RGB32, 0, 0, -1, -1, 0, 0, 1, den, 1, den);
        benchmark::DoNotOptimize(image.constBits());
    });
}

double cloneFrame()
{
    const VideoFrame f = picture();
    return rate([&] {
        VideoFrame c = f.clone(orvo::defaultBufferProperties);
        benchmark::DoNotOptimize(c.body());
    });
}

double memcpyPlanes()
{
    VideoFrame f = picture();
    f.map();
    const size_t y = size_t(kW) * kH, uv = y / 4;
    const double r = rate([&] {
        // The clone's work: fresh memory for each plane, then one copy each.
        std::vector<uint8_t*> planes = {new uint8_t[y + 8], new uint8_t[uv + 8], new uint8_t[uv + 8]};
        memcpy(planes[0], f.bitsY(), y);
        memcpy(planes[1], f.bitsU(), uv);
        memcpy(planes[2], f.bitsV(), uv);
        benchmark::DoNotOptimize(planes.data());
        for (uint8_t* p : planes)
            delete[] p;
    });
    f.unmap();
    return r;
}

double scaleTo360p()
{
    const VideoFrame f = picture();
    VideoFrame dst(640, 360, VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
    orvo::ScaleContext ctx;
    return rate([&] { benchmark::DoNotOptimize(f.scaleTo(dst, ctx, 0, 0, -1, -1)); });
}

double swsScale360p()
{
    VideoFrame f = picture();
    VideoFrame dst(640, 360, VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
    f.map();
    dst.map(QAbstractVideoBuffer::WriteOnly);
    SwsContext* c = nullptr;
    const uint8_t* src[4] = {f.bitsY(), f.bitsU(), f.bitsV(), nullptr};
    const int ss[4] = {int(f.bytesPerLineY()), int(f.bytesPerLineU()), int(f.bytesPerLineV()), 0};
    uint8_t* d[4] = {dst.bitsY(), dst.bitsU(), dst.bitsV(), nullptr};
    const int ds[4] = {int(dst.bytesPerLineY()), int(dst.bytesPerLineU()), int(dst.bytesPerLineV()), 0};
    const double r = rate([&] {
        c = sws_getCachedContext(c, kW, kH, AV_PIX_FMT_YUV420P, 640, 360, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr,
                                 nullptr, nullptr);
        sws_scale(c, src, ss, 0, kH, d, ds);
    });
    sws_freeContext(c);
    f.unmap();
    dst.unmap();
    return r;
}

struct Pair {
    const char* what;
    std::function<double()> ours, baseline;
};

const std::vector<Pair>& pairs()
{
    static const std::vector<Pair> all = {
        {"convertToQImage 1080p vs sws_scale", [] { return oursToQImage(1); }, [] { return swsToBgra(kW, kH); }},
        {"convertToQImage half vs sws_scale", [] { return oursToQImage(2); },
         [] { return swsToBgra(kW / 2, kH / 2); }},
        {"clone vs memcpy of the planes", cloneFrame, memcpyPlanes},
        {"scaleTo 360p vs sws_scale", scaleTo360p, swsScale360p},
    };
    return all;
}

std::vector<orvo::bench::Comparison> results(pairs().size());

void BM_FrameOp(benchmark::State& state)
{
    const Pair& p = pairs()[size_t(state.range(0))];
    for (auto _ : state)
        results[size_t(state.range(0))] = orvo::bench::interleave(orvo::bench::rounds(), p.ours, p.baseline);
}

BENCHMARK(BM_FrameOp)->DenseRange(0, 3)->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    picture();
    benchmark::RunSpecifiedBenchmarks();
    // Operations per CPU second (CPU time is the steadier measure on a shared machine).
    for (size_t i = 0; i < pairs().size(); ++i)
        if (!results[i].ours.empty())
            orvo::bench::report(std::string("frameops ") + pairs()[i].what, results[i], "ops/cpu-s", ">= 0.95");
    benchmark::Shutdown();
    return 0;
}
