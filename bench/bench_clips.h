#pragma once
// Benchmark input: an H.264 clip made once by the ffmpeg command line next to the
// benchmark binary, read back as Annex B access units by orvo::StreamReader.
#include <QByteArray>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "orvo/stream_reader.h"

namespace orvo::bench {

struct Packet {
    QByteArray data;
    bool key = false;
};

// `ffmpegArgs` are everything between "ffmpeg" and the output path (which ends in .h264
// or .hevc, and names the raw format with -f).
inline std::vector<Packet> annexBClip(const std::string& dirName, const std::string& fileName,
                                      const std::string& ffmpegArgs)
{
    std::vector<Packet> out;
    const auto dir = std::filesystem::canonical("/proc/self/exe").parent_path() / dirName;
    std::filesystem::create_directories(dir);
    const std::string path = (dir / fileName).string();
    if (!std::filesystem::exists(path)) {
        // Written under a temporary name so that an interrupted run leaves no half clip.
        const std::string tmp = path + ".part" + std::filesystem::path(path).extension().string();
        const std::string cmd = "ffmpeg -nostdin -v error -y " + ffmpegArgs + " '" + tmp + "'";
        if (std::system(cmd.c_str()) != 0 || std::rename(tmp.c_str(), path.c_str()) != 0)
            return out;
    }
    orvo::StreamReader reader;
    if (!reader.open(QString::fromStdString(path)))
        return out;
    orvo::Image image;
    while (reader.read(image) == orvo::StreamReader::Result::Image)
        out.push_back({image.payload(), image.iframe()});
    return out;
}

}  // namespace orvo::bench
