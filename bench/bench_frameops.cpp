// Frame operations against their plain baselines on a 1080p 4:2:0 picture:
//   convertToQImage (full and half size) vs sws_scale on the same planes with the same flags,
//   clone vs memcpy of the same plane bytes, scaleTo 1080p -> 360p vs sws_scale.
// Prints each ratio as ours / baseline throughput (1.0 = as fast as the baseline).
#include "bench_report.h"
#include "orvo/scale_context.h"
#include "orvo/video_frame.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <map>
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

void swsToBgra(benchmark::State& state, int outW, int outH)
{
    VideoFrame f = picture();
    f.map();
    Bgra out(outW, outH);
    SwsContext* c = nullptr;
    const uint8_t* src[4] = {f.bitsY(), f.bitsU(), f.bitsV(), nullptr};
    const int ss[4] = {int(f.bytesPerLineY()), int(f.bytesPerLineU()), int(f.bytesPerLineV()), 0};
    uint8_t* dst[4] = {out.data, nullptr, nullptr, nullptr};
    const int ds[4] = {out.stride, 0, 0, 0};
    for (auto _ : state) {
        c = sws_getCachedContext(c, kW, kH, AV_PIX_FMT_YUV420P, outW, outH, AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr,
                                 nullptr, nullptr);
        sws_scale(c, src, ss, 0, kH, dst, ds);
        benchmark::DoNotOptimize(out.data);
    }
    sws_freeContext(c);
    f.unmap();
}

void oursToQImage(benchmark::State& state, int den)
{
    const VideoFrame f = picture();
    for (auto _ : state) {
        QImage image = f.convertToQImage(VideoFrame::Format_RGB32, 0, 0, -1, -1, 0, 0, 1, den, 1, den);
        benchmark::DoNotOptimize(image.constBits());
    }
}

void BM_ConvertToQImageFull(benchmark::State& s) { oursToQImage(s, 1); }
void BM_SwsToBgraFull(benchmark::State& s) { swsToBgra(s, kW, kH); }
void BM_ConvertToQImageHalf(benchmark::State& s) { oursToQImage(s, 2); }
void BM_SwsToBgraHalf(benchmark::State& s) { swsToBgra(s, kW / 2, kH / 2); }

void BM_Clone(benchmark::State& state)
{
    const VideoFrame f = picture();
    for (auto _ : state) {
        VideoFrame c = f.clone(orvo::defaultBufferProperties);
        benchmark::DoNotOptimize(c.body());
    }
}

void BM_MemcpyPlanes(benchmark::State& state)
{
    VideoFrame f = picture();
    f.map();
    const size_t y = size_t(kW) * kH, uv = y / 4;
    for (auto _ : state) {
        // The clone's work: fresh memory for each plane, then one copy each.
        std::vector<uint8_t*> planes = {new uint8_t[y + 8], new uint8_t[uv + 8], new uint8_t[uv + 8]};
        memcpy(planes[0], f.bitsY(), y);
        memcpy(planes[1], f.bitsU(), uv);
        memcpy(planes[2], f.bitsV(), uv);
        benchmark::DoNotOptimize(planes.data());
        for (uint8_t* p : planes)
            delete[] p;
    }
    f.unmap();
}

void BM_ScaleTo360p(benchmark::State& state)
{
    const VideoFrame f = picture();
    VideoFrame dst(640, 360, VideoFrame::Format_YUV420P, orvo::defaultBufferProperties);
    orvo::ScaleContext ctx;
    for (auto _ : state)
        benchmark::DoNotOptimize(f.scaleTo(dst, ctx, 0, 0, -1, -1));
}

void BM_SwsScale360p(benchmark::State& state)
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
    for (auto _ : state) {
        c = sws_getCachedContext(c, kW, kH, AV_PIX_FMT_YUV420P, 640, 360, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr,
                                 nullptr, nullptr);
        sws_scale(c, src, ss, 0, kH, d, ds);
    }
    sws_freeContext(c);
    f.unmap();
    dst.unmap();
}

BENCHMARK(BM_ConvertToQImageFull)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_SwsToBgraFull)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_ConvertToQImageHalf)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_SwsToBgraHalf)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_Clone)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_MemcpyPlanes)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_ScaleTo360p)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_SwsScale360p)->Unit(benchmark::kMillisecond)->MinTime(0.5);

// Keeps each benchmark's time per iteration for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs)
            if (r.run_type == Run::RT_Iteration) {
                real[r.run_name.function_name] = r.GetAdjustedRealTime();
                cpu[r.run_name.function_name] = r.GetAdjustedCPUTime();
            }
    }
    std::map<std::string, double> real;
    std::map<std::string, double> cpu;
};

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const std::pair<const char*, const char*> pairs[] = {
        {"BM_ConvertToQImageFull", "BM_SwsToBgraFull"},
        {"BM_ConvertToQImageHalf", "BM_SwsToBgraHalf"},
        {"BM_Clone", "BM_MemcpyPlanes"},
        {"BM_ScaleTo360p", "BM_SwsScale360p"},
    };
    // CPU time is the steadier measure on a shared machine; wall-clock time is printed beside it.
    std::printf("\nratio ours/baseline throughput (goal >= 0.95)     cpu     wall\n");
    for (const auto& p : pairs) {
        if (!reporter.cpu.count(p.first) || !reporter.cpu.count(p.second) || reporter.cpu[p.first] <= 0 ||
            reporter.real[p.first] <= 0)
            continue;
        std::printf("  %-24s vs %-18s %.3f   %.3f\n", p.first, p.second, reporter.cpu[p.second] / reporter.cpu[p.first],
                    reporter.real[p.second] / reporter.real[p.first]);
    }
    // Throughput in runs per second of CPU time (times are in ms), ours against the baseline.
    for (const auto& p : pairs) {
        if (!reporter.cpu.count(p.first) || !reporter.cpu.count(p.second) || reporter.cpu[p.first] <= 0 ||
            reporter.cpu[p.second] <= 0)
            continue;
        orvo::bench::report(std::string("frameops ") + (p.first + 3) + " vs " + (p.second + 3),
                            1000.0 / reporter.cpu[p.first], 1000.0 / reporter.cpu[p.second], "runs/s", ">= 0.95");
    }
    return 0;
}
