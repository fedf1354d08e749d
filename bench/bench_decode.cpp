// Decoding speed of pre-split H.264 streams (1080p and 720p), image by image:
//   (a) raw libavcodec send/receive, no copy of the picture,
//   (b) Decoder with pictures copied into the frame's planes,
//   (c) Decoder with zero-copy decoding (frames wrap FFmpeg's buffers).
// Each pass decodes the whole stream; the three run in interleaved rounds and the ratios
// b/a and c/a are the medians of the rounds.
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

// Pictures per CPU second of one pass over the stream: one thread decodes, so CPU time is
// the steady measure on a shared machine.
template <class Pass>
double picturesPerCpuSecond(Pass&& pass)
{
    const double t0 = orvo::bench::processCpuSeconds();
    const int64_t pictures = pass();
    const double seconds = orvo::bench::processCpuSeconds() - t0;
    return seconds > 0 ? double(pictures) / seconds : 0;
}

double rawPass(const Stream& s)
{
    // Packets prepared before timing, reference-counted and padded, so that FFmpeg copies nothing.
    std::vector<AVPacket*> packets;
    for (const QByteArray& p : s.packets) {
        AVPacket* pkt = av_packet_alloc();
        av_new_packet(pkt, p.size());
        memcpy(pkt->data, p.constData(), size_t(p.size()));
        packets.push_back(pkt);
    }
    const double rate = picturesPerCpuSecond([&] {
        AVCodecContext* ctx = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264));
        avcodec_open2(ctx, ctx->codec, nullptr);
        AVFrame* frame = av_frame_alloc();
        int64_t pictures = 0;
        for (AVPacket* pkt : packets) {
            avcodec_send_packet(ctx, pkt);
            while (avcodec_receive_frame(ctx, frame) >= 0) {
                ++pictures;
                av_frame_unref(frame);
            }
        }
        av_frame_free(&frame);
        avcodec_free_context(&ctx);
        return pictures;
    });
    for (AVPacket*& pkt : packets)
        av_packet_free(&pkt);
    return rate;
}

double decoderPass(const Stream& s, bool zeroCopy)
{
    orvo::DecoderPreferences::instance()->setZeroCopyDecoding(zeroCopy);
    std::vector<QByteArray> payloads = s.packets;
    return picturesPerCpuSecond([&] {
        Decoder decoder('h', 0);
        int64_t pictures = 0;
        for (QByteArray& p : payloads) {
            orvo::VideoFrame frame;
            if (decoder.decode(reinterpret_cast<unsigned char*>(p.data()), p.size(), frame, false))
                ++pictures;
            benchmark::DoNotOptimize(frame);
        }
        return pictures;
    });
}

std::map<int, std::vector<orvo::bench::Comparison>> results;

// One benchmark run per stream holds every interleaved round of the three sides.
void BM_DecodeH264(benchmark::State& state)
{
    const int which = int(state.range(0));
    const Stream& s = stream(which);
    for (auto _ : state)
        results[which] = orvo::bench::interleave(orvo::bench::rounds(), [&] { return rawPass(s); },
                                                 {[&] { return decoderPass(s, false); },
                                                  [&] { return decoderPass(s, true); }});
}

BENCHMARK(BM_DecodeH264)->ArgName("stream")->Arg(0)->Arg(1)->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    stream(0);  // make the data before any timing
    stream(1);
    const bool zeroCopyDefault = orvo::DecoderPreferences::instance()->isZeroCopyDecoding();
    benchmark::RunSpecifiedBenchmarks();
    orvo::DecoderPreferences::instance()->setZeroCopyDecoding(zeroCopyDefault);
    std::printf("\npictures per CPU second (median of %d interleaved rounds)   raw(a)  copied(b)  zero-copy(c)   "
                "b/a    c/a\n",
                orvo::bench::rounds());
    for (const auto& [which, c] : results) {
        if (c.size() != 2)
            continue;
        const std::string name = which == 0 ? "1080p" : "720p";
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
