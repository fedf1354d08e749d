// 300 pictures of 1280x720 to H.264 in MP4: through Encoder, and through the ffmpeg
// command line with the same libx264 preset, size, GOP and bit rate reading the same
// pictures as raw YUV, in interleaved rounds. Prints pictures per second of both and the
// median of the per-round ratios ours / ffmpeg.
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

// One encode of kPictures through Encoder into MP4; pictures per second of wall time (the
// ffmpeg side runs in another process, so its CPU time is not ours to read).
double oursPass(std::string& error)
{
    const auto& data = pictures();
    orvo::AVEncoder::setPresetFilePath(presetFile().string());
    const std::string out = (workDir() / "ours.mp4").string();
    int presetSwitch = 1;
    const auto t0 = std::chrono::steady_clock::now();
    orvo::Encoder enc(1);
    orvo::EncoderError e;
    if (!enc.open(1, out, "", AV_CODEC_ID_H264, kWidth, kHeight, 1, 1, kBitRate, 0, kFps, 1, kGop, 0, 0, 0, 0,
                  &presetSwitch, e)) {
        error = e.toString();
        return 0;
    }
    for (int i = 0; i < kPictures; ++i) {
        unsigned char* y = const_cast<unsigned char*>(data.data()) + static_cast<size_t>(i % kDistinct) * kPictureBytes;
        enc.encode(y, y + kWidth * kHeight, y + kWidth * kHeight * 5 / 4, kWidth, kWidth / 2, kWidth / 2, nullptr, 0);
    }
    enc.close();
    return kPictures / std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// The same pictures, settings and container through the ffmpeg command line.
double ffmpegPass(std::string& error)
{
    const std::string raw = rawFile().string();
    char cmd[2048];
    std::snprintf(cmd, sizeof cmd,
                  "ffmpeg -nostdin -v error -y -f rawvideo -pix_fmt yuv420p -s %dx%d -r %d -stream_loop %d -i '%s' "
                  "-frames:v %d -c:v libx264 -preset %s -g %d -b:v %d -bt %d -sar 1 '%s'",
                  kWidth, kHeight, kFps, kPictures / kDistinct - 1, raw.c_str(), kPictures, kPreset, kGop, kBitRate,
                  kBitRate / 4, (workDir() / "ffmpeg.mp4").string().c_str());
    const auto t0 = std::chrono::steady_clock::now();
    if (std::system(cmd) != 0) {
        error = "ffmpeg failed";
        return 0;
    }
    return kPictures / std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

orvo::bench::Comparison result;

void BM_EncodeH264Mp4(benchmark::State& state)
{
    std::string error;
    for (auto _ : state)
        result = orvo::bench::interleave(
            orvo::bench::rounds(), [&] { return oursPass(error); }, [&] { return ffmpegPass(error); });
    if (!error.empty())
        state.SkipWithError(error.c_str());
}

BENCHMARK(BM_EncodeH264Mp4)->Unit(benchmark::kSecond)->UseRealTime()->Iterations(1);

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    pictures();
    rawFile();
    benchmark::RunSpecifiedBenchmarks();
    if (!result.ours.empty())
        std::printf("\nH.264 1280x720, %d pictures, preset %s: Encoder %.1f pictures/s, ffmpeg %.1f pictures/s, "
                    "ratio %.3f (median of %zu interleaved rounds, %.3f-%.3f)\n",
                    kPictures, kPreset, orvo::bench::median(result.ours), orvo::bench::median(result.baseline),
                    result.ratio(), result.ours.size(), result.lowest(), result.highest());
    if (!result.ours.empty())
        orvo::bench::report("encode H.264 720p MP4", result, "pictures/s", ">= 0.95");
    benchmark::Shutdown();
    return 0;
}
