// N = 1, 4, 16 and 64 streams of 1280x720 H.264 decoded through ConcurrentDecoder (one
// owner thread, Qt's global pool at its default size) against the same images decoded by
// one raw libavcodec decoder per stream, the streams spread over idealThreadCount() plain
// threads. Both sides run in interleaved rounds; per N it prints CPU time per picture
// (process CPU time over pictures: what decides how many cameras a machine shows), the
// throughput, and the spread between the fastest and the slowest stream.
#include "bench_clips.h"
#include "bench_report.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/decoder_preferences.h"
#include "orvo/image.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QThread>
#include <QThreadPool>
#include <QTimer>
#include <benchmark/benchmark.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kClipFrames = 60;
// Every run decodes about this many pictures in all, whatever N (the clip is fed again
// for small N, and cut after its first I-frame interval for large N), so each run lasts
// a few seconds.
constexpr int kPicturesPerRun = 960;
constexpr int kMinPicturesPerStream = 15;

using orvo::bench::Packet;


// A 720p Annex B H.264 clip cut into access units (made once by the ffmpeg command line).
const std::vector<Packet>& clip()
{
    static const std::vector<Packet> packets = orvo::bench::annexBClip("bench_multistream_data", "clip720p.h264", "-f lavfi -i testsrc2=size=1280x720:rate=25 -frames:v " + std::to_string(kClipFrames) + " -c:v libx264 -preset veryfast -bf 0 -g 30 -pix_fmt yuv420p -f h264");
    return packets;
}

// Pictures per stream: the clip from its first I-frame, fed again as often as needed.
int picturesPerStream(int streams)
{
    return std::max(kMinPicturesPerStream, kPicturesPerRun / streams);
}

struct RunResult {
    double fps = 0;                   // aggregate pictures per second
    std::vector<double> streamFps;    // each stream's pictures over its own completion time
    double cpuMsPerPicture = 0;       // process CPU time per picture
};

using orvo::bench::processCpuSeconds;

double spreadOf(const std::vector<double>& fps)
{
    if (fps.empty())
        return 0;
    const auto [lo, hi] = std::minmax_element(fps.begin(), fps.end());
    return *hi > 0 ? 100.0 * (*hi - *lo) / *hi : 0;
}

// --- through the library ------------------------------------------------------------------

RunResult runOurs(int streams)
{
    const auto& packets = clip();
    const int perStream = picturesPerStream(streams);
    // Each stream gets its own payload copies, as separate cameras would.
    std::vector<std::vector<orvo::Image>> images(streams);
    for (int s = 0; s < streams; ++s) {
        for (int i = 0; i < perStream; ++i) {
            const Packet& p = packets[size_t(i) % packets.size()];
            const quint64 id = quint64(i) + 1;
            orvo::Image image('h', QByteArray(p.data.constData(), p.data.size()), id, qint64(id) * 40, p.key);
            image.setStreamId(quint32(s));
            images[s].push_back(image);
        }
    }
    std::vector<std::unique_ptr<orvo::ConcurrentDecoder>> decoders;
    std::vector<int> received(streams, 0);
    std::vector<qint64> doneNs(streams, 0);
    int total = 0;
    QElapsedTimer clock;
    QEventLoop loop;
    for (int s = 0; s < streams; ++s) {
        decoders.push_back(std::make_unique<orvo::ConcurrentDecoder>());
        QObject::connect(decoders.back().get(), &orvo::DecoderInterfaceSignals::frameDecoded, &loop,
                         [&, s](const orvo::VideoFrame&) {
                             if (++received[s] == perStream)
                                 doneNs[s] = clock.nsecsElapsed();
                             if (++total == streams * perStream)
                                 loop.quit();
                         });
    }
    const double cpu0 = processCpuSeconds();
    clock.start();
    for (int i = 0; i < perStream; ++i)
        for (int s = 0; s < streams; ++s)
            decoders[s]->decode(images[s][i]);
    QTimer::singleShot(300000, &loop, &QEventLoop::quit);  // never hang
    loop.exec();
    const double seconds = clock.nsecsElapsed() / 1e9;
    RunResult r;
    r.fps = total / seconds;
    r.cpuMsPerPicture = total > 0 ? 1000 * (processCpuSeconds() - cpu0) / total : 0;
    for (int s = 0; s < streams; ++s)
        r.streamFps.push_back(doneNs[s] > 0 ? perStream / (doneNs[s] / 1e9) : 0);
    return r;
}

// --- one raw libavcodec decoder per stream ---------------------------------------------------

RunResult runRaw(int streams)
{
    const auto& packets = clip();
    const int perStream = picturesPerStream(streams);
    const int threads = std::max(1, std::min(streams, QThread::idealThreadCount()));
    std::vector<double> doneS(streams, 0);
    std::vector<int> decoded(streams, 0);
    const double cpu0 = processCpuSeconds();
    const auto t0 = std::chrono::steady_clock::now();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
            std::vector<int> mine;
            std::vector<AVCodecContext*> ctx;
            for (int s = t; s < streams; s += threads) {
                mine.push_back(s);
                AVCodecContext* c = avcodec_alloc_context3(codec);
                c->thread_count = 1;
                avcodec_open2(c, codec, nullptr);
                ctx.push_back(c);
            }
            AVPacket* pkt = av_packet_alloc();
            AVFrame* frame = av_frame_alloc();
            for (int i = 0; i < perStream; ++i) {
                const Packet& p = packets[size_t(i) % packets.size()];
                for (size_t k = 0; k < mine.size(); ++k) {
                    av_new_packet(pkt, p.data.size());
                    memcpy(pkt->data, p.data.constData(), size_t(p.data.size()));
                    if (avcodec_send_packet(ctx[k], pkt) >= 0)
                        while (avcodec_receive_frame(ctx[k], frame) >= 0)
                            ++decoded[mine[k]];
                    av_packet_unref(pkt);
                }
            }
            const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            for (size_t k = 0; k < mine.size(); ++k) {
                doneS[mine[k]] = s;
                avcodec_free_context(&ctx[k]);
            }
            av_frame_free(&frame);
            av_packet_free(&pkt);
        });
    }
    for (auto& w : workers)
        w.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    RunResult r;
    int total = 0;
    for (int s = 0; s < streams; ++s) {
        total += decoded[s];
        r.streamFps.push_back(doneS[s] > 0 ? decoded[s] / doneS[s] : 0);
    }
    r.fps = total / seconds;
    r.cpuMsPerPicture = total > 0 ? 1000 * (processCpuSeconds() - cpu0) / total : 0;
    return r;
}

struct Rounds {
    std::vector<RunResult> ours, raw;
};
std::map<int, Rounds> results;

// One benchmark run per N holds every interleaved round of both sides.
void BM_Multistream(benchmark::State& state)
{
    const int n = int(state.range(0));
    if (clip().empty()) {
        state.SkipWithError("no test clip (ffmpeg failed)");
        return;
    }
    Rounds& r = results[n];
    for (auto _ : state) {
        orvo::bench::interleave(
            orvo::bench::rounds(),
            [&] {
                r.ours.push_back(runOurs(n));
                return r.ours.back().fps;
            },
            [&] {
                r.raw.push_back(runRaw(n));
                return r.raw.back().fps;
            });
    }
}

BENCHMARK(BM_Multistream)->Arg(1)->Arg(4)->Arg(16)->Arg(64)->Unit(benchmark::kSecond)->UseRealTime()->Iterations(1);

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // --zero_copy / --copy: frames wrap libavcodec's own buffers, or carry copies of the
    // planes, whatever the library's default is.
    int zeroCopy = -1;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--zero_copy" || arg == "--copy") {
            zeroCopy = arg == "--zero_copy";
            for (int k = i; k + 1 < argc; ++k)
                argv[k] = argv[k + 1];
            --argc;
            break;
        }
    }
    if (zeroCopy >= 0)
        orvo::DecoderPreferences::instance()->setZeroCopyDecoding(zeroCopy == 1);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    clip();
    benchmark::RunSpecifiedBenchmarks();
    const bool copied = !orvo::DecoderPreferences::instance()->isZeroCopyDecoding();
    std::printf("\n720p H.264, about %d pictures per run, frames %s, pool of %d threads, %d plain threads, "
                "%d interleaved rounds (medians)\n",
                kPicturesPerRun, copied ? "copied" : "zero-copy", QThreadPool::globalInstance()->maxThreadCount(),
                QThread::idealThreadCount(), orvo::bench::rounds());
    for (const auto& [n, r] : results) {
        orvo::bench::Comparison cpu, fps;
        std::vector<double> spreads;
        for (size_t i = 0; i < r.ours.size() && i < r.raw.size(); ++i) {
            // Pictures per CPU second: raw/ours CPU per picture is ours/raw of this rate.
            cpu.ours.push_back(r.ours[i].cpuMsPerPicture > 0 ? 1000 / r.ours[i].cpuMsPerPicture : 0);
            cpu.baseline.push_back(r.raw[i].cpuMsPerPicture > 0 ? 1000 / r.raw[i].cpuMsPerPicture : 0);
            fps.ours.push_back(r.ours[i].fps);
            fps.baseline.push_back(r.raw[i].fps);
            spreads.push_back(spreadOf(r.ours[i].streamFps));
        }
        std::printf("N=%2d  CPU per picture ours %.3f ms raw %.3f ms (raw/ours %.3f, %.3f-%.3f)  fps ours %.1f raw "
                    "%.1f (%.3f)  stream spread %.1f%%\n",
                    n, 1000 / orvo::bench::median(cpu.ours), 1000 / orvo::bench::median(cpu.baseline), cpu.ratio(),
                    cpu.lowest(), cpu.highest(), orvo::bench::median(fps.ours), orvo::bench::median(fps.baseline),
                    fps.ratio(), orvo::bench::median(spreads));
        const std::string what = "pooled 720p H.264 N=" + std::to_string(n);
        orvo::bench::report(what + " pictures/CPU-s", cpu, "pic/cpu-s", ">= 0.95");
        orvo::bench::report(what + " fps", fps, "fps", "-");
        // Spread as a fraction of the fastest stream: ratio = spread% / 100.
        if (n > 1)
            orvo::bench::reportBound(what + " stream spread", orvo::bench::median(spreads), 100.0, "%",
                                     n == 16 ? "<= 0.10" : "-");
    }
    benchmark::Shutdown();
    return 0;
}
