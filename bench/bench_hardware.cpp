// Hardware decoding on the GPU's video engine: N = 1, 16 and 64 pooled 1080p H.264 and H.265
// streams through ConcurrentDecoder with hardware decoding on, against (a) a raw FFmpeg
// hardware decoding loop written here (the ordinary h264/hevc decoder with a shared device
// context, one thread per decoder, each picture downloaded with av_hwframe_transfer_data;
// the streams spread over idealThreadCount() plain threads) and (b) the same pooled
// decoders in software. Interleaved rounds; per N it prints CPU time per picture (process
// CPU time over pictures) and frames per second, with the median ratios.
//
// Where no device of the type opens (ORVO_BENCH_HW_DEVICE, default cuda) it prints
// "no GPU device" and exits 0. Clips are taken from beside the executable when there (a
// machine without ffmpeg, see tests/gpu/run_gpu.sh), else made by the ffmpeg command line.
#include "bench_clips.h"
#include "bench_report.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/decoder.h"
#include "orvo/decoder_preferences.h"
#include "orvo/hardware_testing.h"
#include "orvo/image.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QThread>
#include <QThreadPool>
#include <QTimer>
#include <benchmark/benchmark.h>
#include <sys/resource.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/hwcontext.h>
}

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

constexpr int kPicturesPerRun = 1200;
constexpr int kMinPicturesPerStream = 20;

using orvo::bench::Packet;
using orvo::bench::processCpuSeconds;

std::string deviceType()
{
    const char* env = std::getenv("ORVO_BENCH_HW_DEVICE");
    return env && *env ? env : "cuda";
}

struct Codec {
    const char* name;
    quint8 code;
    AVCodecID id;
    const char* file;
    const char* encoder;
};
const Codec kCodecs[] = {
    {"H.264", 'h', AV_CODEC_ID_H264, "hw_bench_1080p.h264", "-c:v libx264 -preset veryfast -f h264"},
    {"H.265", 'e', AV_CODEC_ID_HEVC, "hw_bench_1080p.hevc",
     "-c:v libx265 -preset veryfast -x265-params log-level=error -f hevc"},
};

// Camera-like 1080p: no B-frames, an I-frame every 30 pictures.
std::vector<Packet> clipOf(const Codec& codec)
{
    const auto here = std::filesystem::canonical("/proc/self/exe").parent_path() / codec.file;
    if (std::filesystem::exists(here)) {
        std::vector<Packet> out;
        orvo::StreamReader reader;
        orvo::Image image;
        if (reader.open(QString::fromStdString(here.string())))
            while (reader.read(image) == orvo::StreamReader::Result::Image)
                out.push_back({image.payload(), image.iframe()});
        return out;
    }
    return orvo::bench::annexBClip("bench_hardware_data", codec.file,
                                   std::string("-f lavfi -i testsrc2=size=1920x1080:rate=25 -frames:v 60 -bf 0 "
                                               "-g 30 -pix_fmt yuv420p ") +
                                       codec.encoder);
}

const std::vector<Packet>& clip(const Codec& codec)
{
    static std::map<AVCodecID, std::vector<Packet>> clips;
    auto it = clips.find(codec.id);
    if (it == clips.end())
        it = clips.emplace(codec.id, clipOf(codec)).first;
    return it->second;
}

int picturesPerStream(int streams) { return std::max(kMinPicturesPerStream, kPicturesPerRun / streams); }

struct RunResult {
    double fps = 0;
    double cpuMsPerPicture = 0;
    double faultsPerPicture = 0;  // page faults: fresh memory touched per picture
    int onEngine = 0;             // ours: streams whose pictures came from the engine
};

long pageFaults()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt + usage.ru_majflt;
}

// --- through the library ----------------------------------------------------------------

RunResult runOurs(const Codec& codec, int streams, orvo::HardwareDecoding mode, const QSize& bound = {})
{
    orvo::DecoderPreferences::instance()->setHardwareDecoding(mode);  // read as each decoder is made
    const auto& packets = clip(codec);
    const int perStream = picturesPerStream(streams);
    std::vector<std::vector<orvo::Image>> images(streams);
    for (int s = 0; s < streams; ++s)
        for (int i = 0; i < perStream; ++i) {
            const Packet& p = packets[size_t(i) % packets.size()];
            const quint64 id = quint64(i) + 1;
            images[s].emplace_back(codec.code, QByteArray(p.data.constData(), p.data.size()), id, qint64(id) * 40,
                                   p.key);
        }
    std::vector<std::unique_ptr<orvo::ConcurrentDecoder>> decoders;
    int total = 0;     // pictures
    int answered = 0;  // pictures and errors: the run ends when every image is answered
    QEventLoop loop;
    for (int s = 0; s < streams; ++s) {
        decoders.push_back(std::make_unique<orvo::ConcurrentDecoder>());
        decoders.back()->setMaxOutputSize(bound);
        QObject::connect(decoders.back().get(), &orvo::DecoderInterfaceSignals::frameDecoded, &loop,
                         [&](const orvo::VideoFrame&) {
                             ++total;
                             if (++answered == streams * perStream)
                                 loop.quit();
                         });
        QObject::connect(decoders.back().get(), &orvo::DecoderInterfaceSignals::error, &loop,
                         [&](const orvo::DecoderError&) {
                             if (++answered == streams * perStream)
                                 loop.quit();
                         });
    }
    const double cpu0 = processCpuSeconds();
    const long faults0 = pageFaults();
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < perStream; ++i)
        for (int s = 0; s < streams; ++s)
            decoders[s]->decode(images[s][i]);
    QTimer::singleShot(300000, &loop, &QEventLoop::quit);  // never hang
    loop.exec();
    RunResult r;
    r.fps = total / (clock.nsecsElapsed() / 1e9);
    r.cpuMsPerPicture = total > 0 ? 1000 * (processCpuSeconds() - cpu0) / total : 0;
    r.faultsPerPicture = total > 0 ? double(pageFaults() - faults0) / total : 0;
    for (const auto& d : decoders)
        r.onEngine += d->decodingPath().isHardware() ? 1 : 0;
    return r;
}

// --- raw FFmpeg hardware decoding with download ----------------------------------------------

AVBufferRef* g_device = nullptr;
AVPixelFormat g_hwFormat = AV_PIX_FMT_NONE;

AVPixelFormat pickHardware(AVCodecContext*, const AVPixelFormat* formats)
{
    for (const AVPixelFormat* f = formats; *f != AV_PIX_FMT_NONE; ++f)
        if (*f == g_hwFormat)
            return *f;
    return formats[0];
}

bool openRawDevice()
{
    const AVHWDeviceType type = av_hwdevice_find_type_by_name(deviceType().c_str());
    if (type == AV_HWDEVICE_TYPE_NONE || av_hwdevice_ctx_create(&g_device, type, nullptr, nullptr, 0) < 0)
        return false;
    const AVCodec* h264 = avcodec_find_decoder(AV_CODEC_ID_H264);
    for (int i = 0;; ++i) {
        const AVCodecHWConfig* config = avcodec_get_hw_config(h264, i);
        if (!config)
            return false;
        if ((config->methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX) && config->device_type == type) {
            g_hwFormat = config->pix_fmt;
            return true;
        }
    }
}

RunResult runRaw(const Codec& codec, int streams)
{
    const auto& packets = clip(codec);
    const int perStream = picturesPerStream(streams);
    const int threads = std::max(1, std::min(streams, QThread::idealThreadCount()));
    std::vector<int> decoded(threads, 0);
    const double cpu0 = processCpuSeconds();
    const long faults0 = pageFaults();
    const auto t0 = std::chrono::steady_clock::now();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            const AVCodec* decoder = avcodec_find_decoder(codec.id);
            std::vector<AVCodecContext*> ctx;
            for (int s = t; s < streams; s += threads) {
                AVCodecContext* c = avcodec_alloc_context3(decoder);
                c->thread_count = 1;
                c->hw_device_ctx = av_buffer_ref(g_device);
                c->get_format = pickHardware;
                c->extra_hw_frames = 1;
                c->hwaccel_flags |= AV_HWACCEL_FLAG_IGNORE_LEVEL;
                avcodec_open2(c, decoder, nullptr);
                ctx.push_back(c);
            }
            AVPacket* pkt = av_packet_alloc();
            AVFrame* frame = av_frame_alloc();
            AVFrame* sw = av_frame_alloc();
            for (int i = 0; i < perStream; ++i) {
                const Packet& p = packets[size_t(i) % packets.size()];
                for (AVCodecContext* c : ctx) {
                    av_new_packet(pkt, p.data.size());
                    memcpy(pkt->data, p.data.constData(), size_t(p.data.size()));
                    if (avcodec_send_packet(c, pkt) >= 0)
                        while (avcodec_receive_frame(c, frame) >= 0) {
                            if (av_hwframe_transfer_data(sw, frame, 0) >= 0)
                                ++decoded[t];
                            av_frame_unref(sw);
                            av_frame_unref(frame);
                        }
                    av_packet_unref(pkt);
                }
            }
            for (AVCodecContext*& c : ctx)
                avcodec_free_context(&c);
            av_frame_free(&sw);
            av_frame_free(&frame);
            av_packet_free(&pkt);
        });
    }
    for (auto& w : workers)
        w.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    int total = 0;
    for (int n : decoded)
        total += n;
    RunResult r;
    r.fps = total / seconds;
    r.cpuMsPerPicture = total > 0 ? 1000 * (processCpuSeconds() - cpu0) / total : 0;
    r.faultsPerPicture = total > 0 ? double(pageFaults() - faults0) / total : 0;
    return r;
}

struct Rounds {
    std::vector<RunResult> hardware, raw, software;
};
std::map<std::pair<int, int>, Rounds> results;  // (codec index, N)

void BM_Hardware(benchmark::State& state)
{
    const int codecIndex = int(state.range(0));
    const int n = int(state.range(1));
    const Codec& codec = kCodecs[codecIndex];
    if (clip(codec).empty()) {
        state.SkipWithError("no test clip (ffmpeg failed)");
        return;
    }
    Rounds& r = results[{codecIndex, n}];
    for (auto _ : state) {
        orvo::bench::interleave(
            orvo::bench::rounds(),
            [&] {
                r.raw.push_back(runRaw(codec, n));
                return r.raw.back().fps;
            },
            {[&] {
                 r.hardware.push_back(runOurs(codec, n, orvo::HardwareDecoding::Auto));
                 return r.hardware.back().fps;
             },
             [&] {
                 r.software.push_back(runOurs(codec, n, orvo::HardwareDecoding::Off));
                 return r.software.back().fps;
             }});
    }
}

BENCHMARK(BM_Hardware)
    ->ArgsProduct({{0, 1}, {1, 16, 64}})
    ->Unit(benchmark::kSecond)
    ->UseRealTime()
    ->Iterations(1);

// One setting of the hardware path on and off, in interleaved rounds of the same pooled run:
// "tiles" (1080p shown at 480x270: reduced on the GPU before the download, against downloaded
// in full and fitted in software on the decoding thread) and "pinned" (full pictures
// downloaded into page-locked memory, against ordinary memory).
const QSize kTile(480, 270);
struct Toggle {
    const char* name;
    const char* on;
    const char* off;
    void (*set)(bool);
    QSize bound;
};
const Toggle kToggles[] = {
    {"tiles", "reduced on the GPU", "downloaded in full and fitted", orvo::setHardwareReducingForTesting, kTile},
    {"pinned", "pinned", "pageable", orvo::setHardwarePinningForTesting, QSize()},
};
// (toggle, codec index, N) -> runs with the setting on, off
std::map<std::tuple<int, int, int>, std::pair<std::vector<RunResult>, std::vector<RunResult>>> toggled;

void BM_HardwareToggle(benchmark::State& state)
{
    const Toggle& toggle = kToggles[state.range(0)];
    const int codecIndex = int(state.range(1));
    const int n = int(state.range(2));
    const Codec& codec = kCodecs[codecIndex];
    if (clip(codec).empty()) {
        state.SkipWithError("no test clip (ffmpeg failed)");
        return;
    }
    auto& [on, off] = toggled[{int(state.range(0)), codecIndex, n}];
    for (auto _ : state) {
        orvo::bench::interleave(
            orvo::bench::rounds(),
            [&] {
                on.push_back(runOurs(codec, n, orvo::HardwareDecoding::Auto, toggle.bound));
                return on.back().fps;
            },
            [&] {
                toggle.set(false);
                off.push_back(runOurs(codec, n, orvo::HardwareDecoding::Auto, toggle.bound));
                toggle.set(true);
                return off.back().fps;
            });
    }
}

BENCHMARK(BM_HardwareToggle)
    ->ArgsProduct({{0, 1}, {0, 1}, {1, 16}})
    ->Unit(benchmark::kSecond)
    ->UseRealTime()
    ->Iterations(1);

// Pictures per CPU second, per round: ratios of it are inverse ratios of CPU per picture.
double perCpuSecond(const RunResult& r) { return r.cpuMsPerPicture > 0 ? 1000 / r.cpuMsPerPicture : 0; }

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const bool makeClips = argc > 1 && std::string(argv[1]) == "--make_clips";
    benchmark::Initialize(&argc, argv);
    if (!makeClips && benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    // --make_clips: only make the clips (beside the executable, in bench_hardware_data/), for a
    // machine without ffmpeg.
    if (makeClips) {
        for (const Codec& codec : kCodecs)
            if (clip(codec).empty())
                return 1;
        return 0;
    }
    orvo::DecoderPreferences* prefs = orvo::DecoderPreferences::instance();
    if (!prefs->setHardwareDeviceType(deviceType())) {
        std::printf("no GPU device: FFmpeg knows no device type '%s'\n", deviceType().c_str());
        return 0;
    }
    // ORVO_GPU_EMULATE=1: a dry run over the emulated engine (the raw loop has no device then).
    const bool emulated = !qEnvironmentVariableIsEmpty("ORVO_GPU_EMULATE");
    orvo::setEmulatedHardwareForTesting(emulated);
    if (!emulated && !openRawDevice()) {
        std::printf("no GPU device: no %s device opens\n", deviceType().c_str());
        return 0;
    }
    for (const Codec& codec : kCodecs)
        clip(codec);
    // The library's device stays open for the whole run, as the raw loop's does: a wall opens
    // it once, with its first stream, not once per round.
    prefs->setHardwareDecoding(orvo::HardwareDecoding::Auto);
    Decoder keeper;
    orvo::VideoFrame first;
    if (!clip(kCodecs[0]).empty())
        keeper.decodeImage(orvo::Image(kCodecs[0].code, clip(kCodecs[0]).front().data, 1, 0, true), first);
    benchmark::RunSpecifiedBenchmarks();
    std::printf("\n1080p, about %d pictures per run, %s device, pool of %d threads, %d plain threads, "
                "%d interleaved rounds (medians)\n",
                kPicturesPerRun, deviceType().c_str(), QThreadPool::globalInstance()->maxThreadCount(),
                QThread::idealThreadCount(), orvo::bench::rounds());
    for (const auto& [key, r] : results) {
        const Codec& codec = kCodecs[key.first];
        const int n = key.second;
        orvo::bench::Comparison fpsRaw, cpuRaw, cpuSoftware, fpsSoftware, faults;
        int offEngine = 0;
        for (size_t i = 0; i < r.hardware.size() && i < r.raw.size() && i < r.software.size(); ++i) {
            fpsRaw.ours.push_back(r.hardware[i].fps);
            fpsRaw.baseline.push_back(r.raw[i].fps);
            cpuRaw.ours.push_back(perCpuSecond(r.hardware[i]));
            cpuRaw.baseline.push_back(perCpuSecond(r.raw[i]));
            cpuSoftware.ours.push_back(perCpuSecond(r.hardware[i]));
            cpuSoftware.baseline.push_back(perCpuSecond(r.software[i]));
            fpsSoftware.ours.push_back(r.hardware[i].fps);
            fpsSoftware.baseline.push_back(r.software[i].fps);
            faults.ours.push_back(r.hardware[i].faultsPerPicture);
            faults.baseline.push_back(r.raw[i].faultsPerPicture);
            offEngine += n - r.hardware[i].onEngine;
        }
        std::printf("%s N=%2d  CPU per picture hw %.3f ms raw hw %.3f ms sw %.3f ms  fps hw %.1f raw hw %.1f sw %.1f"
                    "  page faults per picture hw %.1f raw hw %.1f%s\n",
                    codec.name, n, 1000 / orvo::bench::median(cpuRaw.ours),
                    1000 / orvo::bench::median(cpuRaw.baseline), 1000 / orvo::bench::median(cpuSoftware.baseline),
                    orvo::bench::median(fpsRaw.ours), orvo::bench::median(fpsRaw.baseline),
                    orvo::bench::median(fpsSoftware.baseline), orvo::bench::median(faults.ours),
                    orvo::bench::median(faults.baseline), offEngine ? "  (some streams were not on the engine)" : "");
        const std::string what = std::string("pooled 1080p ") + codec.name + " N=" + std::to_string(n);
        const bool goalN = n == 16 || n == 64;
        orvo::bench::report(what + " hw fps vs raw hwaccel", fpsRaw, "fps", goalN ? ">= 0.90" : "-");
        // CPU per picture at most 1.2 x raw: pictures per CPU second at least 1/1.2 of raw.
        orvo::bench::report(what + " hw pictures/CPU-s vs raw hwaccel", cpuRaw, "pic/cpu-s", goalN ? ">= 0.83" : "-");
        // CPU per picture at most a quarter of software's (H.264, N = 1 and 16).
        const bool goalSw = codec.code == 'h' && (n == 1 || n == 16);
        orvo::bench::report(what + " hw pictures/CPU-s vs software", cpuSoftware, "pic/cpu-s", goalSw ? ">= 4.00" : "-");
        orvo::bench::report(what + " hw fps vs software", fpsSoftware, "fps", "-");
    }
    for (const auto& [key, runs] : toggled) {
        const Toggle& toggle = kToggles[std::get<0>(key)];
        const Codec& codec = kCodecs[std::get<1>(key)];
        const int n = std::get<2>(key);
        orvo::bench::Comparison cpu, fps;
        for (size_t i = 0; i < runs.first.size() && i < runs.second.size(); ++i) {
            cpu.ours.push_back(perCpuSecond(runs.first[i]));
            cpu.baseline.push_back(perCpuSecond(runs.second[i]));
            fps.ours.push_back(runs.first[i].fps);
            fps.baseline.push_back(runs.second[i].fps);
        }
        std::printf("%s N=%2d %s  CPU per picture %s %.3f ms, %s %.3f ms  fps %.1f / %.1f\n", codec.name, n,
                    toggle.name, toggle.on, 1000 / orvo::bench::median(cpu.ours), toggle.off,
                    1000 / orvo::bench::median(cpu.baseline), orvo::bench::median(fps.ours),
                    orvo::bench::median(fps.baseline));
        const std::string what = std::string("pooled 1080p ") + codec.name + " N=" + std::to_string(n) + " " +
                                 toggle.on + " vs " + toggle.off;
        orvo::bench::report(what + " pictures/CPU-s", cpu, "pic/cpu-s", "-");
        orvo::bench::report(what + " fps", fps, "fps", "-");
    }
    av_buffer_unref(&g_device);
    benchmark::Shutdown();
    return 0;
}
