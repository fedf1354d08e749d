// Decoding speed of pre-split H.264 streams (1080p, 720p and a wall tile's 360p), image by
// image:
//   (a) raw libavcodec send/receive, no copy of the picture,
//   (b) Decoder with pictures copied into the frame's planes,
//   (c) Decoder with zero-copy decoding (frames wrap FFmpeg's buffers).
// Each round decodes the whole stream on all three sides, interleaved a group of pictures
// at a time; the ratios b/a and c/a are the medians of the rounds.
#include "bench_report.h"
#include "orvo/decoder.h"
#include "orvo/decoder_preferences.h"
#include "orvo/stream_reader.h"

#include <QByteArray>
#include <benchmark/benchmark.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>
#include <cstdio>
#include <ctime>
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
    const char* bitrate;
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

// Camera-like content: moving test pattern with sensor noise, one I-frame a second.
std::string makeFile(const Stream& s)
{
    const std::string path = dataDir() + "/h264_" + s.name + ".mkv";
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && st.st_size > 0)
        return path;
    const std::string tmp = path + ".part.mkv";
    const std::string cmd = std::string("ffmpeg -nostdin -y -loglevel error -f lavfi -i testsrc2=size=") + s.size +
                            ":rate=25,noise=alls=10:allf=t -frames:v 100 -c:v libx264 -preset veryfast "
                            "-profile:v main -bf 0 -g 25 -b:v " + s.bitrate + " -pix_fmt yuv420p '" +
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
    static Stream streams[3] = {
        {"1080p", "1920x1080", "6M", {}}, {"720p", "1280x720", "6M", {}}, {"360p", "640x360", "1M", {}}};
    Stream& s = streams[which];
    if (s.packets.empty())
        s.packets = demuxAnnexB(makeFile(s));
    return s;
}

double threadCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

// One side of a round: its own decoder, fed the stream one segment at a time, with the CPU
// time of its segments and the pictures they gave.
struct Side {
    virtual ~Side() = default;
    virtual int64_t decode(size_t from, size_t to) = 0;  // pictures
    double seconds = 0;
    int64_t pictures = 0;

    void run(size_t from, size_t to)
    {
        const double t0 = threadCpuSeconds();
        pictures += decode(from, to);
        seconds += threadCpuSeconds() - t0;
    }
    double rate() const { return seconds > 0 ? double(pictures) / seconds : 0; }
};

// Raw libavcodec; packets prepared beforehand, reference-counted and padded, so that FFmpeg
// copies nothing.
struct RawSide final : Side {
    explicit RawSide(const Stream& s)
    {
        for (const QByteArray& p : s.packets) {
            AVPacket* pkt = av_packet_alloc();
            av_new_packet(pkt, p.size());
            memcpy(pkt->data, p.constData(), size_t(p.size()));
            packets.push_back(pkt);
        }
        avcodec_open2(ctx, ctx->codec, nullptr);
    }
    ~RawSide() override
    {
        for (AVPacket*& pkt : packets)
            av_packet_free(&pkt);
        av_frame_free(&frame);
        avcodec_free_context(&ctx);
    }
    int64_t decode(size_t from, size_t to) override
    {
        int64_t n = 0;
        for (size_t i = from; i < to; ++i) {
            avcodec_send_packet(ctx, packets[i]);
            while (avcodec_receive_frame(ctx, frame) >= 0) {
                ++n;
                av_frame_unref(frame);
            }
        }
        return n;
    }
    std::vector<AVPacket*> packets;
    AVCodecContext* ctx = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264));
    AVFrame* frame = av_frame_alloc();
};

// Decoder with pictures copied or zero-copy (the preference is read at every picture).
struct OursSide final : Side {
    OursSide(const Stream& s, bool zeroCopy) : payloads(s.packets), zeroCopy(zeroCopy)
    {
        for (QByteArray& p : payloads)
            p.detach();  // writable payloads, as images' are
    }
    int64_t decode(size_t from, size_t to) override
    {
        orvo::DecoderPreferences::instance()->setZeroCopyDecoding(zeroCopy);
        int64_t n = 0;
        for (size_t i = from; i < to; ++i) {
            orvo::VideoFrame frame;
            if (decoder.decode(reinterpret_cast<unsigned char*>(payloads[i].data()), payloads[i].size(), frame, false))
                ++n;
            benchmark::DoNotOptimize(frame);
        }
        return n;
    }
    std::vector<QByteArray> payloads;
    bool zeroCopy;
    Decoder decoder{'h', 0};
};

// Each round decodes the whole stream once on every side, interleaved one group of
// pictures at a time in an order that turns from one segment to the next: load that comes
// and goes falls on every side alike, not on whichever pass it happens to meet.
std::vector<orvo::bench::Comparison> decodeRounds(const Stream& s, int roundCount)
{
    constexpr size_t kSegment = 25;  // one I-frame interval
    std::vector<orvo::bench::Comparison> out(2);
    for (int round = 0; round < roundCount; ++round) {
        RawSide raw(s);
        OursSide copied(s, false), zeroCopy(s, true);
        Side* const sides[3] = {&raw, &copied, &zeroCopy};
        size_t turn = size_t(round);
        for (size_t from = 0; from < s.packets.size(); from += kSegment, ++turn) {
            const size_t to = std::min(s.packets.size(), from + kSegment);
            for (size_t k = 0; k < 3; ++k)
                sides[(turn + k) % 3]->run(from, to);
        }
        for (size_t i = 0; i < 2; ++i) {
            out[i].baseline.push_back(raw.rate());
            out[i].ours.push_back(sides[i + 1]->rate());
        }
    }
    return out;
}

std::map<int, std::vector<orvo::bench::Comparison>> results;

// One benchmark run per stream holds every interleaved round of the three sides.
void BM_DecodeH264(benchmark::State& state)
{
    const int which = int(state.range(0));
    const Stream& s = stream(which);
    for (auto _ : state)
        results[which] = decodeRounds(s, orvo::bench::rounds());
}

BENCHMARK(BM_DecodeH264)->ArgName("stream")->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    stream(0);  // make the data before any timing
    stream(1);
    stream(2);
    const bool zeroCopyDefault = orvo::DecoderPreferences::instance()->isZeroCopyDecoding();
    benchmark::RunSpecifiedBenchmarks();
    orvo::DecoderPreferences::instance()->setZeroCopyDecoding(zeroCopyDefault);
    std::printf("\npictures per CPU second (median of %d rounds interleaved by GOP)   raw(a)  copied(b)  zero-copy(c)   "
                "b/a    c/a\n",
                orvo::bench::rounds());
    for (const auto& [which, c] : results) {
        if (c.size() != 2)
            continue;
        const std::string name = stream(which).name;
        std::printf("H.264 %-52s %7.1f %10.1f %12.1f   %5.3f  %5.3f\n", name.c_str(),
                    orvo::bench::median(c[0].baseline), orvo::bench::median(c[0].ours),
                    orvo::bench::median(c[1].ours), c[0].ratio(), c[1].ratio());
        const std::string what = "Decoder H.264 " + name;
        orvo::bench::report(what + " copied", c[0], "pic/cpu-s", ">= 0.95");
        orvo::bench::report(what + " zero-copy", c[1], "pic/cpu-s", ">= 0.99");
    }
    benchmark::Shutdown();
    return 0;
}
