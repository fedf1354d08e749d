#pragma once
// Benchmark input: an H.264 clip made once by the ffmpeg command line next to the
// benchmark binary, read back as Annex B access units.
#include <QByteArray>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

namespace orvo::bench {

struct Packet {
    QByteArray data;
    bool key = false;
};

// `ffmpegArgs` are everything between "ffmpeg" and the output path (which ends in .h264).
inline std::vector<Packet> annexBClip(const std::string& dirName, const std::string& fileName,
                                      const std::string& ffmpegArgs)
{
    std::vector<Packet> out;
    const auto dir = std::filesystem::canonical("/proc/self/exe").parent_path() / dirName;
    std::filesystem::create_directories(dir);
    const std::string path = (dir / fileName).string();
    if (!std::filesystem::exists(path)) {
        // Written under a temporary name so that an interrupted run leaves no half clip.
        const std::string tmp = path + ".part.h264";
        const std::string cmd = "ffmpeg -nostdin -v error -y " + ffmpegArgs + " '" + tmp + "'";
        if (std::system(cmd.c_str()) != 0 || std::rename(tmp.c_str(), path.c_str()) != 0)
            return out;
    }
    AVFormatContext* fmt = nullptr;
    if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0)
        return out;
    avformat_find_stream_info(fmt, nullptr);
    AVPacket* pkt = av_packet_alloc();
    while (av_read_frame(fmt, pkt) >= 0) {
        out.push_back({QByteArray(reinterpret_cast<const char*>(pkt->data), pkt->size),
                       (pkt->flags & AV_PKT_FLAG_KEY) != 0});
        av_packet_unref(pkt);
    }
    av_packet_free(&pkt);
    avformat_close_input(&fmt);
    return out;
}

}  // namespace orvo::bench
