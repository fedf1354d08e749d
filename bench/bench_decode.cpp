// Decoding speed of pre-split H.264 streams (1080p and 720p), image by image:
//   (a) raw libavcodec send/receive, no copy of the picture,
//   (b) Decoder with the default path (pictures copied into the frame's planes),
//   (c) Decoder with zero-copy decoding (frames wrap FFmpeg's buffers).
// Prints frames per second for each and the ratios b/a and c/a.
#include "bench_report.h"
#include "orvo/decoder.h"
#include "orvo/decoder_preferences.h"
#include "orvo/stream_reader.h"

#include <QByteArray>
#include <benchmark/benchmark.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

struct Stream {
    const char* name;
    const char* size;
    std::vector<QByteArray> packets;  // Annex B access units, as cameras send them
};

std::string dataDir()
{
    char exe[4096] = {};
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::string dir = n > 0 ? std::string(exe, size_t(n)) : std::string("./x");
    dir = dir.substr(0, dir.rfind('/')) + "/bench_data";
    mkdir(dir.c_str(), 0755);
    return dir;
}

// Camera-like content: moving test pattern with sensor noise, 6 Mbit/s, one I-frame a second.
std::string makeFile(const Stream& s)
{
    const std::string path = dataDir() + "/h264_" + s.name + ".mkv";
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && st.st_size > 0)
        return path;
    const std::string tmp = path + ".part.mkv";
    const std::string cmd = std::string("ffmpeg -nostdin -y -loglevel error -f lavfi -i testsrc2=size=") + s.size +
                            ":rate=25,noise=alls=10:allf=t -frames:v 100 -c:v libx264 -preset veryfast "
                            "-profile:v main -bf 0 -g 25 -b:v 6M -pix_fmt yuv420p '" +
                            tmp + "'";
    if (std::system(cmd.c_str()) != 0 || std::rename(tmp.c_str(), path.c_str()) != 0) {
        std::fprintf(stderr, "could not make %s\n", path.c_str());
        std::exit(1);
    }
    return path;
}

std::vector<QByteArray> demuxAnnexB(const std::string& path)
{
    std::vector<QByteArray> out;
    orvo::StreamReader reader;
    if (!reader.open(QString::fromStdString(path)))
        return out;
    orvo::Image image;
    while (reader.read(image) == orvo::StreamReader::Result::Image)
        out.push_back(image.payload());
    return out;
}

Stream& stream(int which)
{
    static Stream streams[2] = {{"1080p", "1920x1080", {}}, {"720p", "1280x720", {}}};
    Stream& s = streams[which];
    if (s.packets.empty())
        s.packets = demuxAnnexB(makeFile(s));
    return s;
}

void BM_RawLibavcodec(benchmark::State& state)
{
    Stream& s = stream(int(state.range(0)));
    // Packets prepared once, reference-counted and padded, so that FFmpeg copies nothing.
    std::vector<AVPacket*> packets;
    for (const QByteArray& p : s.packets) {
        AVPacket* pkt = av_packet_alloc();
        av_new_packet(pkt, p.size());
        memcpy(pkt->data, p.constData(), size_t(p.size()));
        packets.push_back(pkt);
    }
    AVCodecContext* ctx = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264));
    avcodec_open2(ctx, ctx->codec, nullptr);
    AVFrame* frame = av_frame_alloc();
    int64_t pictures = 0;
    for (auto _ : state) {
        for (AVPacket* pkt : packets) {
            avcodec_send_packet(ctx, pkt);
            while (avcodec_receive_frame(ctx, frame) >= 0) {
                ++pictures;
                av_frame_unref(frame);
            }
        }
    }
    state.SetItemsProcessed(pictures);
    av_frame_free(&frame);
    avcodec_free_context(&ctx);
    for (AVPacket*& pkt : packets)
        av_packet_free(&pkt);
}

void decodeWithDispatcher(benchmark::State& state, bool zeroCopy)
{
    Stream& s = stream(int(state.range(0)));
    orvo::DecoderPreferences::instance()->setZeroCopyDecoding(zeroCopy);
    std::vector<QByteArray> payloads = s.packets;
    Decoder decoder('h', 0);
    int64_t pictures = 0;
    for (auto _ : state) {
        for (QByteArray& p : payloads) {
            orvo::VideoFrame frame;
            if (decoder.decode(reinterpret_cast<unsigned char*>(p.data()), p.size(), frame, false))
                ++pictures;
            benchmark::DoNotOptimize(frame);
        }
    }
    state.SetItemsProcessed(pictures);
    orvo::DecoderPreferences::instance()->setZeroCopyDecoding(false);
}

void BM_DecoderDefault(benchmark::State& state) { decodeWithDispatcher(state, false); }
void BM_DecoderZeroCopy(benchmark::State& state) { decodeWithDispatcher(state, true); }

void configure(benchmark::internal::Benchmark* b)
{
    b->ArgName("stream")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->MinTime(1.0)->Repetitions(6)
        ->ReportAggregatesOnly(true);
}

BENCHMARK(BM_RawLibavcodec)->Apply(configure);
BENCHMARK(BM_DecoderDefault)->Apply(configure);
BENCHMARK(BM_DecoderZeroCopy)->Apply(configure);

// Collects the median frames per second of each run for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (run.aggregate_name != "median")
                continue;
            auto it = run.counters.find("items_per_second");
            if (it != run.counters.end())
                fps[run.run_name.function_name][run.run_name.args] = it->second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, std::map<std::string, double>> fps;
};

}  // namespace

int main(int argc, char** argv)
{
    // The machine is shared: interleave the repetitions of (a), (b) and (c) so that a
    // change of load hits all three alike, and compare medians.
    std::vector<char*> args(argv, argv + argc);
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    args.insert(args.begin() + 1, interleave);
    int count = int(args.size());
    benchmark::Initialize(&count, args.data());
    stream(0);  // make the data before any timing
    stream(1);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nframes per second (median)      raw(a)   default(b)  zero-copy(c)   b/a    c/a\n");
    for (const char* args : {"stream:0", "stream:1"}) {
        const double a = reporter.fps["BM_RawLibavcodec"][args];
        const double b = reporter.fps["BM_DecoderDefault"][args];
        const double c = reporter.fps["BM_DecoderZeroCopy"][args];
        if (a <= 0)
            continue;
        std::printf("%-30s %8.1f %10.1f %12.1f   %5.3f  %5.3f\n",
                    std::string(args) == "stream:0" ? "H.264 1920x1080" : "H.264 1280x720", a, b, c, b / a, c / a);
    }
    for (const char* args : {"stream:0", "stream:1"}) {
        const double a = reporter.fps["BM_RawLibavcodec"][args];
        if (a <= 0)
            continue;
        const std::string what = std::string("decode H.264 ") + (std::string(args) == "stream:0" ? "1080p" : "720p");
        orvo::bench::report(what + " default", reporter.fps["BM_DecoderDefault"][args], a, "fps", ">= 0.92");
        orvo::bench::report(what + " zero-copy", reporter.fps["BM_DecoderZeroCopy"][args], a, "fps", ">= 0.97");
    }
    benchmark::Shutdown();
    return 0;
}
