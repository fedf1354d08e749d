// Live latency of H.265 against H.264: N pooled 1280x720 streams at 25 fps (16, or two
// per core where fewer than 8 cores could not decode 16 in real time;
// ORVO_BENCH_LATENCY_STREAMS sets N), one whole access unit per image, each image handed
// to its ConcurrentDecoder when it is due; latency is the time from the due time to the
// frame's arrival on the owner thread. A run of each codec per round, in interleaved
// rounds; prints the median and worst latency of each and the gap between them (goal:
// within 5 ms). An H.265 picture held back one image would cost a whole frame interval.
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

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int kFps = 25;
constexpr qint64 kFrameNs = 1000000000LL / kFps;
constexpr int kSeconds = 4;  // of live video per run
constexpr int kClipFrames = 50;

using orvo::bench::Packet;

int streamCount()
{
    const char* env = std::getenv("ORVO_BENCH_LATENCY_STREAMS");
    const int n = env ? std::atoi(env) : 0;
    if (n > 0)
        return n;
    const int cores = QThreadPool::globalInstance()->maxThreadCount();
    return cores >= 8 ? 16 : 2 * cores;
}

std::string source()
{
    return "-f lavfi -i testsrc2=size=1280x720:rate=25,noise=alls=6:allf=t -frames:v " + std::to_string(kClipFrames) +
           " -pix_fmt yuv420p ";
}

const std::vector<Packet>& h264Clip()
{
    static const auto packets = orvo::bench::annexBClip(
        "bench_latency_data", "camera720p.h264",
        source() + "-c:v libx264 -preset veryfast -bf 0 -g 25 -keyint_min 25 -sc_threshold 0 -b:v 2M -f h264");
    return packets;
}

const std::vector<Packet>& hevcClip()
{
    static const auto packets = orvo::bench::annexBClip(
        "bench_latency_data", "camera720p.hevc",
        source() + "-c:v libx265 -preset veryfast -b:v 1M -x265-params "
                   "log-level=error:bframes=0:keyint=25:min-keyint=25:scenecut=0 -f hevc");
    return packets;
}

struct LatencyRun {
    std::vector<double> latencyMs;  // one per picture shown
    qint64 offered = 0;
};

LatencyRun runLive(quint8 code, const std::vector<Packet>& packets)
{
    const int streams = streamCount();
    const int framesPerStream = kSeconds * kFps;
    std::vector<qint64> phaseNs(static_cast<size_t>(streams));
    for (int s = 0; s < streams; ++s)
        phaseNs[size_t(s)] = kFrameNs * s / streams;  // cameras are not in step
    std::vector<int> next(static_cast<size_t>(streams), 0);
    LatencyRun r;
    QElapsedTimer clock;
    QEventLoop loop;
    std::vector<std::unique_ptr<orvo::ConcurrentDecoder>> decoders;
    for (int s = 0; s < streams; ++s) {
        auto decoder = std::make_unique<orvo::ConcurrentDecoder>();
        decoder->useMultiThreadedMode();
        QObject::connect(decoder.get(), &orvo::DecoderInterfaceSignals::frameDecoded, &loop,
                         [&, s](const orvo::VideoFrame& frame) {
                             const qint64 due = phaseNs[size_t(s)] + (qint64(frame.id()) - 1) * kFrameNs;
                             r.latencyMs.push_back((clock.nsecsElapsed() - due) / 1e6);
                         });
        decoders.push_back(std::move(decoder));
    }
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(1);
    QObject::connect(&tick, &QTimer::timeout, &loop, [&] {
        const qint64 now = clock.nsecsElapsed();
        bool more = false;
        for (int s = 0; s < streams; ++s) {
            while (next[size_t(s)] < framesPerStream && phaseNs[size_t(s)] + next[size_t(s)] * kFrameNs <= now) {
                const int k = next[size_t(s)]++;
                const Packet& p = packets[size_t(k) % packets.size()];
                decoders[size_t(s)]->decode(orvo::Image(code, p.data, quint64(k) + 1, qint64(k) * 40, p.key));
                ++r.offered;
            }
            more = more || next[size_t(s)] < framesPerStream;
        }
        if (!more) {
            tick.stop();
            QTimer::singleShot(1000, &loop, &QEventLoop::quit);
        }
    });
    clock.start();
    tick.start();
    loop.exec();
    return r;
}

std::vector<double> medians[2], worsts[2];
qint64 shown[2], offered[2];

void record(int which, const LatencyRun& r)
{
    medians[which].push_back(orvo::bench::median(r.latencyMs));
    worsts[which].push_back(r.latencyMs.empty() ? 0 : *std::max_element(r.latencyMs.begin(), r.latencyMs.end()));
    shown[which] += qint64(r.latencyMs.size());
    offered[which] += r.offered;
}

void BM_LiveLatency(benchmark::State& state)
{
    if (h264Clip().empty() || hevcClip().empty()) {
        state.SkipWithError("no test clips (ffmpeg failed)");
        return;
    }
    for (auto _ : state)
        orvo::bench::interleave(
            orvo::bench::rounds(),
            [] {
                record(1, runLive('e', hevcClip()));
                return 1.0;
            },
            [] {
                record(0, runLive('h', h264Clip()));
                return 1.0;
            });
}

BENCHMARK(BM_LiveLatency)->Unit(benchmark::kSecond)->UseRealTime()->Iterations(1);

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    const char* names[2] = {"H.264", "H.265"};
    std::printf("\n%d streams of 1280x720 at %d fps, %d s each, pool of %d threads\n", streamCount(), kFps, kSeconds,
                QThreadPool::globalInstance()->maxThreadCount());
    for (int w = 0; w < 2; ++w) {
        std::printf("%s: pictures %lld of %lld; median latency per round:", names[w],
                    static_cast<long long>(shown[w]), static_cast<long long>(offered[w]));
        for (double m : medians[w])
            std::printf(" %.1f", m);
        std::printf(" ms; worst per round:");
        for (double m : worsts[w])
            std::printf(" %.1f", m);
        std::printf(" ms\n");
    }
    if (medians[0].empty() || medians[1].empty()) {
        benchmark::Shutdown();
        return 0;
    }
    const std::string what = "live " + std::to_string(streamCount()) + "x 720p";
    const double medianGap = orvo::bench::median(medians[1]) - orvo::bench::median(medians[0]);
    const double worstGap = orvo::bench::median(worsts[1]) - orvo::bench::median(worsts[0]);
    std::printf("median latency H.264 %.1f ms, H.265 %.1f ms; worst H.264 %.1f ms, H.265 %.1f ms\n",
                orvo::bench::median(medians[0]), orvo::bench::median(medians[1]), orvo::bench::median(worsts[0]),
                orvo::bench::median(worsts[1]));
    orvo::bench::reportBound(what + " H.265 - H.264 median latency", medianGap, 5.0, "ms", "<= 1.0");
    orvo::bench::reportBound(what + " H.265 - H.264 worst latency", worstGap, 5.0, "ms", "<= 1.0");
    orvo::bench::reportBound(what + " H.265 pictures shown", double(shown[1]), double(offered[1]), "pictures",
                             ">= 1.0");
    benchmark::Shutdown();
    return 0;
}
