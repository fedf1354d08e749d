// A live camera wall: 64 streams of 640x360 H.264 at 25 fps (one I-frame a second),
// offered in real time to ConcurrentDecoders on Qt's global pool, more than a small
// machine decodes. Each stream's backlog is bound at 3 and cleared at I-frames.
//   full:        every image offered; prints the worst latency from decode() to
//                frameDecoded (goal: under two GOP durations) and the share of I-frames
//                shown (goal: all of them);
//   iframe-only: setDecodeIFramesOnly(true); prints the process CPU time per second of
//                wall clock against the full run (goal: under a third).
// Streams start at staggered times, as independent cameras do, so their I-frames are
// spread over the second.
#include "bench_clips.h"
#include "bench_report.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/image.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QThreadPool>
#include <QTimer>
#include <benchmark/benchmark.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int kStreams = 64;
constexpr int kFps = 25;
constexpr int kGop = 25;
constexpr qint64 kFrameNs = 1000000000LL / kFps;
constexpr qint64 kGopNs = kFrameNs * kGop;
constexpr int kSeconds = 10;  // of live video per run
constexpr int kClipFrames = kFps * 4;

using orvo::bench::Packet;

// Camera-like 360p H.264 (moving pattern with sensor noise, about 1 Mbit/s, no B-frames),
// made once by the ffmpeg command line, as Annex B access units.
const std::vector<Packet>& clip()
{
    static const std::vector<Packet> packets = orvo::bench::annexBClip("bench_live_data", "camera360p.h264", "-f lavfi -i testsrc2=size=640x360:rate=25,noise=alls=8:allf=t -frames:v " + std::to_string(kClipFrames) + " -c:v libx264 -preset veryfast -bf 0 -g 25 -keyint_min 25 -sc_threshold 0 -b:v 1M -pix_fmt yuv420p -f h264");
    return packets;
}

double processCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + ts.tv_nsec / 1e9;
}

struct WallResult {
    double worstLatencyMs = 0;
    double meanLatencyMs = 0;
    qint64 iframesOffered = 0;
    qint64 iframesShown = 0;
    qint64 offered = 0;
    qint64 shown = 0;
    quint64 dropped = 0;
    double cpuPerWallSecond = 0;
};

WallResult runWall(bool iframesOnly)
{
    const std::vector<Packet>& packets = clip();
    const int framesPerStream = kSeconds * kFps;
    // Stream s starts s/64 of a GOP after stream 0.
    std::vector<qint64> phaseNs(kStreams);
    for (int s = 0; s < kStreams; ++s)
        phaseNs[s] = kGopNs * s / kStreams;
    std::vector<std::vector<qint64>> offeredAt(kStreams, std::vector<qint64>(framesPerStream, -1));
    std::vector<int> next(kStreams, 0);

    WallResult r;
    double latencySum = 0;
    QElapsedTimer clock;
    QEventLoop loop;
    std::vector<std::unique_ptr<orvo::ConcurrentDecoder>> decoders;
    for (int s = 0; s < kStreams; ++s) {
        auto decoder = std::make_unique<orvo::ConcurrentDecoder>();
        decoder->useMultiThreadedMode();
        decoder->setInputQueueMaxSize(3);
        decoder->clearInputQueueOnIFrames();
        decoder->setDecodeIFramesOnly(iframesOnly);
        QObject::connect(decoder.get(), &orvo::DecoderInterfaceSignals::frameDecoded, &loop,
                         [&, s](const orvo::VideoFrame& frame) {
                             const qint64 index = qint64(frame.id()) - 1;
                             if (index < 0 || index >= framesPerStream || offeredAt[s][size_t(index)] < 0)
                                 return;
                             const double ms = (clock.nsecsElapsed() - offeredAt[s][size_t(index)]) / 1e6;
                             r.worstLatencyMs = std::max(r.worstLatencyMs, ms);
                             latencySum += ms;
                             ++r.shown;
                             if (packets[size_t(index) % packets.size()].key)
                                 ++r.iframesShown;
                         });
        decoders.push_back(std::move(decoder));
    }

    // Every tick offers each stream the images that are due by now, like a network
    // reader would; between ticks the thread sleeps in the event loop.
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(2);
    bool feeding = true;
    double feedWallS = 0, feedCpuS = 0;
    const double cpu0 = processCpuSeconds();
    QObject::connect(&tick, &QTimer::timeout, &loop, [&] {
        const qint64 now = clock.nsecsElapsed();
        bool more = false;
        for (int s = 0; s < kStreams; ++s) {
            while (next[s] < framesPerStream && phaseNs[s] + next[s] * kFrameNs <= now) {
                const int k = next[s]++;
                const Packet& p = packets[size_t(k) % packets.size()];
                orvo::Image image('h', p.data, quint64(k) + 1, qint64(k) * 40, p.key);
                image.setStreamId(quint32(s));
                offeredAt[s][size_t(k)] = clock.nsecsElapsed();
                ++r.offered;
                r.iframesOffered += p.key ? 1 : 0;
                decoders[size_t(s)]->decode(image);
            }
            more = more || next[s] < framesPerStream;
        }
        if (!more && feeding) {
            feeding = false;
            // CPU is measured over the live period, not the idle tail after it.
            feedWallS = clock.nsecsElapsed() / 1e9;
            feedCpuS = processCpuSeconds() - cpu0;
            // What is still queued drains within the bound; allow for it, then stop.
            QTimer::singleShot(3000, &loop, &QEventLoop::quit);
        }
    });
    clock.start();
    tick.start();
    loop.exec();
    r.cpuPerWallSecond = feedWallS > 0 ? feedCpuS / feedWallS : 0;
    tick.stop();
    for (const auto& d : decoders)
        r.dropped += d->droppedImages();
    r.meanLatencyMs = r.shown > 0 ? latencySum / double(r.shown) : 0;
    return r;
}

std::vector<WallResult> fullRuns, iframeRuns;

// Full and I-frame-only walls in interleaved rounds, so that the CPU ratio of the two
// modes sees the same machine.
void BM_LiveWall(benchmark::State& state)
{
    if (clip().empty()) {
        state.SkipWithError("no test clip (ffmpeg failed)");
        return;
    }
    for (auto _ : state)
        orvo::bench::interleave(
            orvo::bench::rounds(),
            [] {
                iframeRuns.push_back(runWall(true));
                return iframeRuns.back().cpuPerWallSecond;
            },
            [] {
                fullRuns.push_back(runWall(false));
                return fullRuns.back().cpuPerWallSecond;
            });
}

BENCHMARK(BM_LiveWall)->Unit(benchmark::kSecond)->UseRealTime()->Iterations(1);

void print(const char* name, const WallResult& r)
{
    std::printf("%-12s offered %6lld shown %6lld (%5.1f%%)  I-frames %4lld/%4lld  dropped %6llu  latency worst "
                "%7.1f ms mean %6.1f ms  CPU %.2f s per s\n",
                name, static_cast<long long>(r.offered), static_cast<long long>(r.shown),
                r.offered > 0 ? 100.0 * double(r.shown) / double(r.offered) : 0.0,
                static_cast<long long>(r.iframesShown), static_cast<long long>(r.iframesOffered),
                static_cast<unsigned long long>(r.dropped), r.worstLatencyMs, r.meanLatencyMs, r.cpuPerWallSecond);
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    clip();
    benchmark::RunSpecifiedBenchmarks();
    std::printf("\n%d streams of 640x360 H.264 at %d fps, GOP %d (%.0f ms), %d s each, backlog bound 3, pool of %d "
                "threads\n",
                kStreams, kFps, kGop, kGopNs / 1e6, kSeconds, QThreadPool::globalInstance()->maxThreadCount());
    orvo::bench::Comparison cpu;
    std::vector<double> worst;
    qint64 fullIShown = 0, fullIOffered = 0, onlyIShown = 0, onlyIOffered = 0;
    for (const WallResult& r : fullRuns) {
        print("full", r);
        cpu.baseline.push_back(r.cpuPerWallSecond);
        worst.push_back(r.worstLatencyMs);
        fullIShown += r.iframesShown;
        fullIOffered += r.iframesOffered;
    }
    for (const WallResult& r : iframeRuns) {
        print("iframe-only", r);
        cpu.ours.push_back(r.cpuPerWallSecond);
        onlyIShown += r.iframesShown;
        onlyIOffered += r.iframesOffered;
    }
    double load[3] = {};
    if (getloadavg(load, 3) > 0)
        std::printf("(machine load average %.1f: CPU shares and latency depend on what else runs)\n", load[0]);
    const std::string what = "live 64x 360p H.264";
    if (fullIOffered > 0) {
        orvo::bench::reportBound(what + " worst latency / GOP", orvo::bench::median(worst), kGopNs / 1e6, "ms",
                                 "<= 2.0");
        orvo::bench::reportBound(what + " I-frames shown", double(fullIShown), double(fullIOffered), "I-frames",
                                 ">= 1.0");
    }
    if (onlyIOffered > 0)
        orvo::bench::reportBound(what + " I-frame-only I-frames shown", double(onlyIShown), double(onlyIOffered),
                                 "I-frames", ">= 1.0");
    if (!cpu.ours.empty() && !cpu.baseline.empty())
        orvo::bench::report(what + " CPU iframe-only / full", cpu, "CPU s/s", "<= 0.33");
    benchmark::Shutdown();
    return 0;
}
