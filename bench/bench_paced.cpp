// A camera wall as it runs live: image i of every stream is due at t0 + i * 40 ms, and
// between pictures the decoders sleep. N = 1, 4, 16 streams of 720p and 64 of 360p, H.264
// and H.265 (camera-like content, no B-frames, an I-frame a second).
//   baseline: N plain libavcodec decoders (one thread each, as the library configures
//             them) on two plain threads that each own half of the streams, decode image i
//             of their streams when it is due and sleep until the next due time;
//   ours:     N ConcurrentDecoders with default settings, fed from a precise timer on the
//             owner thread.
// Each side: 1 s of warm-up, then 4 s measured: process CPU time from the first measured
// due time to the last frame, per frame that came in that window (a side that has fallen
// behind still decodes warm-up images there: counting only the measured images would charge
// it their cost), and the worst latency from a measured image's due time to its frame.
// Rounds interleave the sides; ORVO_BENCH_ROUNDS sets how many (default 9: one round swings
// by up to 15% at N = 1 on a shared machine).
// ORVO_PACED_ONLY="H.264 720p N=1" runs the rows named so; ORVO_PACED_THREADS=1 adds where
// each round's CPU went, thread by thread; ORVO_PACED_FLOOR=1 adds a third side, the floor:
// the plainest pool fed from the owner thread, with nothing of the library (runFloor);
// ORVO_PACED_FLOOR=fair makes its streams take turns one image at a time, as ours do.
#include "bench_clips.h"
#include "bench_report.h"
#include "thread_use.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/image.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QThreadPool>
#include <QTimer>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using orvo::bench::Packet;
using orvo::bench::printThreadUse;
using orvo::bench::processCpuSeconds;
using orvo::bench::threadUse;
using orvo::bench::threadUseOf;
using orvo::bench::ThreadUse;
using Clock = std::chrono::steady_clock;

constexpr int kFps = 25;
constexpr qint64 kFrameNs = 1000000000LL / kFps;
constexpr int kWarmFrames = kFps;       // 1 s
constexpr int kMeasuredFrames = 4 * kFps;  // 4 s
constexpr int kFrames = kWarmFrames + kMeasuredFrames;

// ORVO_PACED_THREADS=1 prints, for every round, where each side's CPU went thread by thread,
// and once per row what the wall's own timer costs with nothing to decode.
bool breakdown()
{
    static const bool on = std::getenv("ORVO_PACED_THREADS") != nullptr;
    return on;
}

// Milliseconds from now on `clock` to image `next`'s due time (t0 at `startNs`): what the
// wall's single-shot timer waits.
int msUntilDue(const QElapsedTimer& clock, qint64 startNs, int next)
{
    const qint64 waitNs = startNs + next * kFrameNs - clock.nsecsElapsed();
    return int(std::max<qint64>(0, waitNs / 1000000));
}

struct Config {
    const char* codec;  // "H.264" or "H.265"
    int streams;
    int width, height;
};

const std::vector<Packet>& clip(const Config& c)
{
    // One clip per codec and size, made once by the ffmpeg command line.
    static std::vector<std::pair<std::string, std::vector<Packet>>> made;
    const bool hevc = std::string(c.codec) == "H.265";
    const std::string name = "paced" + std::to_string(c.height) + (hevc ? ".hevc" : ".h264");
    for (const auto& m : made)
        if (m.first == name)
            return m.second;
    const std::string size = std::to_string(c.width) + "x" + std::to_string(c.height);
    const std::string encoder = hevc ? "-c:v libx265 -preset veryfast -x265-params bframes=0:keyint=25:min-keyint=25:log-level=error -f hevc"
                                     : "-c:v libx264 -preset veryfast -bf 0 -g 25 -keyint_min 25 -sc_threshold 0 -f h264";
    made.emplace_back(name, orvo::bench::annexBClip("bench_paced_data", name,
                                                    "-f lavfi -i testsrc2=size=" + size + ":rate=25,noise=alls=8:allf=t -frames:v 100 -pix_fmt yuv420p -b:v " +
                                                        std::string(c.height >= 720 ? "2M " : "1M ") + encoder));
    return made.back().second;
}

struct Side {
    double cpuMsPerPicture = 0;
    double worstLatencyMs = 0;
};

// --- plain threads and libavcodec -----------------------------------------------------------

AVCodecID codecOf(const Config& c)
{
    return std::string(c.codec) == "H.265" ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
}

// A plain libavcodec decoder, one thread, as the library configures its decoders.
AVCodecContext* openPlainDecoder(AVCodecID id)
{
    AVCodecContext* ctx = avcodec_alloc_context3(avcodec_find_decoder(id));
    ctx->thread_count = 1;
    avcodec_open2(ctx, ctx->codec, nullptr);
    return ctx;
}

// Sends `p` as a camera's own copy of it and calls `frameCame()` for each picture out.
template <typename FrameCame>
void decodePlain(AVCodecContext* ctx, AVPacket* pkt, AVFrame* frame, const Packet& p, const FrameCame& frameCame)
{
    av_new_packet(pkt, int(p.data.size()));
    std::copy(p.data.begin(), p.data.end(), pkt->data);
    avcodec_send_packet(ctx, pkt);
    av_packet_unref(pkt);
    while (avcodec_receive_frame(ctx, frame) == 0) {
        av_frame_unref(frame);
        frameCame();
    }
}

Side runRaw(const Config& c, const std::vector<Packet>& packets)
{
    const auto t0 = Clock::now() + std::chrono::milliseconds(20);
    const auto windowStart = t0 + std::chrono::nanoseconds(kFrameNs * kWarmFrames);
    std::atomic<long> measured{0};  // frames that came inside the measured window
    // The window's CPU is read on the decoding threads, as ours is on the owner: when the
    // first measured due time has come, before the next picture's decoding (a third thread
    // woken at that time could wait for a core while the decoders run), and after the last
    // frame, before the decoders close.
    std::atomic<bool> opened{false};
    std::atomic<int> finished{0};
    double cpu0 = 0, cpuEnd = 0;
    std::vector<double> worst(2, 0);
    std::vector<std::pair<ThreadUse, ThreadUse>> used(2);  // each thread's figures, from and to
    auto work = [&](int t) {
        pthread_setname_np(pthread_self(), "raw decode");  // apart from the owner in profiles
        std::vector<AVCodecContext*> decoders;
        for (int s = t; s < c.streams; s += 2)
            decoders.push_back(openPlainDecoder(codecOf(c)));
        AVPacket* pkt = av_packet_alloc();
        AVFrame* frame = av_frame_alloc();
        for (int i = 0; i < kFrames; ++i) {
            const auto due = t0 + std::chrono::nanoseconds(kFrameNs * i);
            std::this_thread::sleep_until(due);
            if (i == kWarmFrames && breakdown())
                used[size_t(t)].first = threadUseOf("/proc/thread-self");
            const Packet& p = packets[size_t(i) % packets.size()];
            for (AVCodecContext* ctx : decoders) {
                // Behind schedule, the window opens between two pictures.
                if (!opened.load(std::memory_order_relaxed) && Clock::now() >= windowStart && !opened.exchange(true))
                    cpu0 = processCpuSeconds();
                decodePlain(ctx, pkt, frame, p, [&] {
                    const auto now = Clock::now();
                    if (now >= windowStart)
                        ++measured;
                    if (i >= kWarmFrames)
                        worst[size_t(t)] = std::max(worst[size_t(t)], std::chrono::duration<double, std::milli>(now - due).count());
                });
            }
        }
        // The last of the threads with streams has its last frame.
        if (!decoders.empty() && finished.fetch_add(1) == std::min(c.streams, 2) - 1)
            cpuEnd = processCpuSeconds();
        if (breakdown())  // read by the thread itself: an ended thread leaves /proc
            used[size_t(t)].second = threadUseOf("/proc/thread-self");
        av_frame_free(&frame);
        av_packet_free(&pkt);
        for (AVCodecContext* ctx : decoders)
            avcodec_free_context(&ctx);
    };
    std::thread a(work, 0), b(work, 1);
    a.join();
    b.join();
    const double cpu = cpuEnd - cpu0;
    if (breakdown()) {
        for (const auto& [from, to] : used)
            printThreadUse("raw", to.name, from, to, measured);
    }
    return {measured > 0 ? 1000 * cpu / double(measured) : 0, std::max(worst[0], worst[1])};
}

// --- the owner thread's side of a wall --------------------------------------------------------

// A precise single-shot timer on the owner thread hands out each due time's images; frames
// come back to the owner, which keeps the window's CPU and the worst latency.
class OwnerWall {
public:
    OwnerWall(const Config& c, const char* side) : side_(side), expected_(long(c.streams) * kFrames)
    {
        QTimer::singleShot(60000, &loop_, &QEventLoop::quit);  // never hang
    }
    QObject* context() { return &loop_; }

    // Owner thread: the frame of image `i` (0-based) came.
    void frame(qint64 i)
    {
        if (windowOpen_)
            ++measured_;
        if (i >= kWarmFrames)
            worst_ = std::max(worst_, (clock_.nsecsElapsed() - kStartNs - i * kFrameNs) / 1e6);
        if (++delivered_ == expected_) {
            cpuEnd_ = processCpuSeconds();
            if (breakdown())
                printThreadUse(side_, threads0_, threadUse(), measured_);
            loop_.quit();
        }
    }

    // Calls `feed(i)` at image i's due time until every image is out and its frame came.
    Side run(const std::function<void(int)>& feed)
    {
        int next = 0;
        QTimer timer;
        timer.setTimerType(Qt::PreciseTimer);
        timer.setSingleShot(true);
        QObject::connect(&timer, &QTimer::timeout, [&] {
            if (next == kWarmFrames) {
                if (breakdown())
                    threads0_ = threadUse();
                cpu0_ = processCpuSeconds();
                windowOpen_ = true;
            }
            feed(next);
            if (++next < kFrames)
                timer.start(msUntilDue(clock_, kStartNs, next));
        });
        clock_.start();
        timer.start(int(kStartNs / 1000000));
        loop_.exec();
        if (delivered_ < expected_)
            std::fprintf(stderr, "%s: %ld of %ld pictures\n", side_, delivered_, expected_);
        return {measured_ > 0 ? 1000 * (cpuEnd_ - cpu0_) / double(measured_) : 0, worst_};
    }

private:
    static constexpr qint64 kStartNs = 20000000;  // t0, on clock_
    const char* side_;
    const long expected_;
    QEventLoop loop_;
    QElapsedTimer clock_;
    long measured_ = 0;  // frames that came inside the measured window
    long delivered_ = 0;
    bool windowOpen_ = false;
    double worst_ = 0, cpu0_ = 0, cpuEnd_ = 0;
    std::map<int, ThreadUse> threads0_;
};

// --- ConcurrentDecoders fed from the owner thread --------------------------------------------

Side runOurs(const Config& c, const std::vector<Packet>& packets)
{
    const char code = std::string(c.codec) == "H.265" ? 'e' : 'h';
    OwnerWall wall(c, "ours");
    std::vector<std::unique_ptr<orvo::ConcurrentDecoder>> decoders;
    for (int s = 0; s < c.streams; ++s) {
        decoders.push_back(std::make_unique<orvo::ConcurrentDecoder>());
        decoders.back()->useMultiThreadedMode();
        QObject::connect(decoders.back().get(), &orvo::DecoderInterfaceSignals::frameDecoded, wall.context(),
                         [&wall](const orvo::VideoFrame& f) { wall.frame(qint64(f.id()) - 1); });
    }
    // Payload copies per stream, as separate cameras send them.
    std::vector<std::vector<orvo::Image>> images(size_t(c.streams));
    for (int s = 0; s < c.streams; ++s)
        for (int i = 0; i < kFrames; ++i) {
            const Packet& p = packets[size_t(i) % packets.size()];
            orvo::Image image(quint8(code), QByteArray(p.data.constData(), p.data.size()), quint64(i) + 1, qint64(i) * 40, p.key);
            image.setAccessUnitEnd(true);
            images[size_t(s)].push_back(image);
        }
    return wall.run([&](int next) {
        for (int s = 0; s < c.streams; ++s)
            decoders[size_t(s)]->decode(images[size_t(s)][size_t(next)]);
    });
}

// --- the floor: the plainest pool fed from the owner thread ---------------------------------

// What any decoder that runs on a thread pool and hands its pictures to an event loop pays,
// with nothing of the library: plain libavcodec decoders (one thread each) run by a pool of
// as many threads as cores, one job per stream at a time, each picture handed to the owner
// as a queued call. Its own pool, so that the threads are as Qt makes them.
Side runFloor(const Config& c, const std::vector<Packet>& packets)
{
    OwnerWall wall(c, "floor");
    QThreadPool pool;
    struct Stream {
        AVCodecContext* ctx = nullptr;
        std::mutex mutex;
        std::deque<int> queue;  // images due, not yet taken
        bool running = false;
    };
    std::vector<Stream> streams(size_t(c.streams));
    for (Stream& s : streams)
        s.ctx = openPlainDecoder(codecOf(c));
    QObject* owner = wall.context();
    // ORVO_PACED_FLOOR=fair: a job decodes one image and queues itself again behind the
    // other streams, instead of working through its stream's queue.
    const bool fair = std::getenv("ORVO_PACED_FLOOR") && std::string(std::getenv("ORVO_PACED_FLOOR")) == "fair";
    std::function<void(Stream*)> job;
    job = [&packets, owner, &wall, &pool, &job, fair](Stream* s) {
        AVPacket* pkt = av_packet_alloc();
        AVFrame* frame = av_frame_alloc();
        for (;;) {
            int i = 0;
            {
                const std::lock_guard<std::mutex> lock(s->mutex);
                if (s->queue.empty()) {
                    s->running = false;
                    break;
                }
                i = s->queue.front();
                s->queue.pop_front();
            }
            decodePlain(s->ctx, pkt, frame, packets[size_t(i) % packets.size()], [&] {
                QMetaObject::invokeMethod(owner, [&wall, i] { wall.frame(i); }, Qt::QueuedConnection);
            });
            if (fair) {
                const std::lock_guard<std::mutex> lock(s->mutex);
                if (s->queue.empty()) {
                    s->running = false;
                } else {
                    pool.start([&job, s] { job(s); });
                }
                break;
            }
        }
        av_frame_free(&frame);
        av_packet_free(&pkt);
    };
    const Side side = wall.run([&](int next) {
        for (Stream& s : streams) {
            {
                const std::lock_guard<std::mutex> lock(s.mutex);
                s.queue.push_back(next);
                if (s.running)
                    continue;
                s.running = true;
            }
            pool.start([&job, &s] { job(&s); });
        }
    });
    pool.waitForDone();
    for (Stream& s : streams)
        avcodec_free_context(&s.ctx);
    return side;
}

// The wall's own timer with nothing to decode: what the owner thread pays per due time
// before any decoder does anything (printed with the breakdown).
void printTimerOnly()
{
    QEventLoop loop;
    QElapsedTimer clock;
    const qint64 startNs = 20000000;
    int next = 0;
    std::map<int, ThreadUse> before;
    QTimer timer;
    timer.setTimerType(Qt::PreciseTimer);
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, [&] {
        if (next == kWarmFrames)
            before = threadUse();
        if (++next < kFrames) {
            timer.start(msUntilDue(clock, startNs, next));
        } else {
            printThreadUse("timer only", before, threadUse(), kMeasuredFrames, "due time");
            loop.quit();
        }
    });
    clock.start();
    timer.start(int(startNs / 1000000));
    loop.exec();
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const char* env = std::getenv("ORVO_BENCH_ROUNDS");
    const int rounds = env && std::atoi(env) > 0 ? std::atoi(env) : 9;
    const std::vector<Config> configs = {
        {"H.264", 1, 1280, 720}, {"H.264", 4, 1280, 720}, {"H.264", 16, 1280, 720}, {"H.264", 64, 640, 360},
        {"H.265", 1, 1280, 720}, {"H.265", 4, 1280, 720}, {"H.265", 16, 1280, 720}, {"H.265", 64, 640, 360},
    };
    // Rows whose names hold it as whole words, e.g. "H.264", "H.265 360p" or "H.264 720p N=1".
    const char* only = std::getenv("ORVO_PACED_ONLY");
    const bool withFloor = std::getenv("ORVO_PACED_FLOOR") != nullptr;
    for (const Config& c : configs) {
        const std::string what = std::string("paced ") + c.codec + " " + std::to_string(c.height) + "p N=" + std::to_string(c.streams);
        if (only && (" " + what + " ").find(" " + std::string(only) + " ") == std::string::npos)
            continue;
        const auto& packets = clip(c);
        if (packets.empty()) {
            std::printf("%s: no clip (is ffmpeg with libx264/libx265 installed?)\n", what.c_str());
            continue;
        }
        std::vector<Side> raw, ours, floor;
        // Rates are pictures per CPU second, so the ratio reads raw / ours CPU per picture.
        std::vector<std::function<double()>> sides = {[&] {
            ours.push_back(runOurs(c, packets));
            return 1000.0 / ours.back().cpuMsPerPicture;
        }};
        if (withFloor)
            sides.push_back([&] {
                floor.push_back(runFloor(c, packets));
                return 1000.0 / floor.back().cpuMsPerPicture;
            });
        const std::vector<orvo::bench::Comparison> cpu = orvo::bench::interleave(
            rounds,
            [&] {
                raw.push_back(runRaw(c, packets));
                return 1000.0 / raw.back().cpuMsPerPicture;
            },
            sides);
        orvo::bench::report(what + " pictures/CPU-s", cpu[0], "pic/cpu-s", ">= 0.97");
        if (withFloor) {
            orvo::bench::report(what + " floor pictures/CPU-s", cpu[1], "pic/cpu-s", "-");
            // Ours against the floor, round by round.
            orvo::bench::Comparison added;
            added.ours = cpu[0].ours;
            added.baseline = cpu[1].ours;
            orvo::bench::report(what + " ours / floor pictures/CPU-s", added, "pic/cpu-s", "-");
        }
        // The median round's worst latency, against raw's + 5 ms.
        std::vector<double> worstRaw, worstOurs;
        for (const Side& s : raw)
            worstRaw.push_back(s.worstLatencyMs);
        for (const Side& s : ours)
            worstOurs.push_back(s.worstLatencyMs);
        const double wr = orvo::bench::median(worstRaw) + 5, wo = orvo::bench::median(worstOurs);
        char spread[96];
        std::snprintf(spread, sizeof spread, "ours %.1f-%.1f, raw %.1f-%.1f ms",
                      *std::min_element(worstOurs.begin(), worstOurs.end()), *std::max_element(worstOurs.begin(), worstOurs.end()),
                      *std::min_element(worstRaw.begin(), worstRaw.end()), *std::max_element(worstRaw.begin(), worstRaw.end()));
        orvo::bench::report(what + " worst latency / raw's + 5 ms", wo, wr, wo / wr, "ms", "<= 1.0", spread);
        if (withFloor) {
            std::vector<double> worstFloor;
            for (const Side& s : floor)
                worstFloor.push_back(s.worstLatencyMs);
            const double wf = orvo::bench::median(worstFloor);
            orvo::bench::report(what + " floor worst latency / raw's + 5 ms", wf, wr, wf / wr, "ms", "-", "");
        }
        if (breakdown())
            printTimerOnly();
    }
    return 0;
}
