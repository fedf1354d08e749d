// 300 pictures of 1280x720 to H.264 in MP4: through Encoder, and through the ffmpeg
// command line with the same libx264 preset, size, GOP and bit rate reading the same
// pictures as raw YUV. Prints pictures per second of both and the ratio ours / ffmpeg.
#include "bench_report.h"
#include "orvo/av_encoder.h"
#include "orvo/encoder.h"

#include <benchmark/benchmark.h>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr int kWidth = 1280, kHeight = 720, kPictures = 300, kDistinct = 30, kFps = 25, kGop = 50;
constexpr int kBitRate = 4000000;
constexpr int kPictureBytes = kWidth * kHeight * 3 / 2;
const char* const kPreset = "veryfast";

std::filesystem::path workDir()
{
    const auto dir = std::filesystem::canonical("/proc/self/exe").parent_path() / "bench_encode_data";
    std::filesystem::create_directories(dir);
    return dir;
}

// Moving smooth patterns with a little texture: work for motion search and rate control.
const std::vector<unsigned char>& pictures()
{
    static const std::vector<unsigned char> all = [] {
        std::vector<unsigned char> p(static_cast<size_t>(kPictureBytes) * kDistinct);
        unsigned int seed = 1;
        for (int k = 0; k < kDistinct; ++k) {
            unsigned char* y = p.data() + static_cast<size_t>(k) * kPictureBytes;
            for (int r = 0; r < kHeight; ++r)
                for (int c = 0; c < kWidth; ++c) {
                    seed = seed * 1103515245u + 12345u;
                    const double v = 128 + 60 * std::sin((c + 6 * k) / 37.0) * std::cos((r + 3 * k) / 29.0);
                    y[r * kWidth + c] = static_cast<unsigned char>(std::lround(v) + int((seed >> 16) % 9) - 4);
                }
            unsigned char* u = y + kWidth * kHeight;
            for (int i = 0; i < kWidth * kHeight / 2; ++i)
                u[i] = static_cast<unsigned char>(128 + 30 * std::sin((i % (kWidth / 2) + 2 * k) / 19.0));
        }
        return p;
    }();
    return all;
}

std::filesystem::path rawFile()
{
    const auto path = workDir() / "pictures.yuv";
    if (!std::filesystem::exists(path) ||
        std::filesystem::file_size(path) != static_cast<std::uintmax_t>(kPictureBytes) * kDistinct) {
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(pictures().data()), static_cast<std::streamsize>(pictures().size()));
    }
    return path;
}

std::filesystem::path presetFile()
{
    const auto path = workDir() / "bench.ffpreset";
    std::ofstream(path) << "preset=" << kPreset << "\n";
    return path;
}

double oursRate = 0, ffmpegRate = 0;

void BM_EncoderH264Mp4(benchmark::State& state)
{
    const auto& data = pictures();
    orvo::AVEncoder::setPresetFilePath(presetFile().string());
    const std::string out = (workDir() / "ours.mp4").string();
    int presetSwitch = 1;
    double best = 0;
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        orvo::Encoder enc(1);
        orvo::EncoderError error;
        if (!enc.open(1, out, "", AV_CODEC_ID_H264, kWidth, kHeight, 1, 1, kBitRate, 0, kFps, 1, kGop, 0, 0, 0, 0,
                      &presetSwitch, error)) {
            state.SkipWithError(error.toString().c_str());
            break;
        }
        for (int i = 0; i < kPictures; ++i) {
            unsigned char* y =
                const_cast<unsigned char*>(data.data()) + static_cast<size_t>(i % kDistinct) * kPictureBytes;
            enc.encode(y, y + kWidth * kHeight, y + kWidth * kHeight * 5 / 4, kWidth, kWidth / 2, kWidth / 2,
                       nullptr, 0);
        }
        enc.close();
        const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        best = std::max(best, kPictures / s);
    }
    state.counters["pictures/s"] = benchmark::Counter(kPictures, benchmark::Counter::kIsIterationInvariantRate);
    oursRate = best;
}

void BM_FfmpegH264Mp4(benchmark::State& state)
{
    const std::string raw = rawFile().string();
    char cmd[2048];
    std::snprintf(cmd, sizeof cmd,
                  "ffmpeg -nostdin -v error -y -f rawvideo -pix_fmt yuv420p -s %dx%d -r %d -stream_loop %d -i '%s' "
                  "-frames:v %d -c:v libx264 -preset %s -g %d -b:v %d -bt %d -sar 1 '%s'",
                  kWidth, kHeight, kFps, kPictures / kDistinct - 1, raw.c_str(), kPictures, kPreset, kGop, kBitRate,
                  kBitRate / 4, (workDir() / "ffmpeg.mp4").string().c_str());
    double best = 0;
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        if (std::system(cmd) != 0) {
            state.SkipWithError("ffmpeg failed");
            break;
        }
        const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        best = std::max(best, kPictures / s);
    }
    state.counters["pictures/s"] = benchmark::Counter(kPictures, benchmark::Counter::kIsIterationInvariantRate);
    ffmpegRate = best;
}

BENCHMARK(BM_EncoderH264Mp4)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(BM_FfmpegH264Mp4)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    pictures();
    rawFile();
    benchmark::RunSpecifiedBenchmarks();
    if (oursRate > 0 && ffmpegRate > 0)
        std::printf("\nH.264 1280x720, %d pictures, preset %s: Encoder %.1f pictures/s, ffmpeg %.1f pictures/s, "
                    "ratio %.3f (best run of each)\n",
                    kPictures, kPreset, oursRate, ffmpegRate, oursRate / ffmpegRate);
    if (oursRate > 0 && ffmpegRate > 0)
        orvo::bench::report("encode H.264 720p MP4", oursRate, ffmpegRate, "pictures/s", ">= 0.95");
    benchmark::Shutdown();
    return 0;
}
