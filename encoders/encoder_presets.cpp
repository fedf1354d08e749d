// AVEncoder: the H.264 preset file and video codec options.
#include "orvo/av_encoder.h"
#include "orvo/log.h"

#include "encoders/preset_line.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

#include <cstdio>
#include <fstream>
#include <mutex>

namespace orvo {

namespace {
std::mutex presetMutex;
std::string& presetPathSetting()
{
    static std::string path;
    return path;
}
const char* const kDefaultPresetFile = "/usr/share/ffmpeg/libx264-lossless_ultrafast.ffpreset";
}  // namespace

bool parsePresetLine(std::string line, std::string& key, std::string& value)
{
    // Files written on Windows end their lines with CR LF.
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    const size_t keyStart = line.find_first_not_of(" \t");
    if (keyStart == std::string::npos || line[keyStart] == '#')
        return false;
    size_t keyEnd = line.find_first_of(" \t=", keyStart);
    if (keyEnd == std::string::npos)
        keyEnd = line.size();
    key = line.substr(keyStart, keyEnd - keyStart);
    const size_t equals = line.find('=', keyEnd);
    // The value is taken as it stands, leading blanks included.
    value = equals == std::string::npos ? std::string() : line.substr(equals + 1);
    return true;
}

void AVEncoder::setPresetFilePath(const std::string& path)
{
    std::lock_guard<std::mutex> lock(presetMutex);
    presetPathSetting() = path;
}

std::string AVEncoder::presetFilePath()
{
    std::lock_guard<std::mutex> lock(presetMutex);
    return presetPathSetting();
}

void AVEncoder::applyPreset(void* presetOption)
{
    std::string path = presetFilePath();
    oprint(LogStream::StandardOutput, "Encoding preset file:'%s'\n", path.c_str());
    if (!presetOption || path.empty())
        path = kDefaultPresetFile;
    std::ifstream probe(path);
    if (!path.empty() && probe.good()) {
        probe.close();
        readVideoOptionsFromFile(path.c_str());
        return;
    }
    oprint(LogStream::StandardOutput,
           "Encoding preset file '%s' does not exist. Use '-encoding-preset-file' option.\n", path.c_str());
    setVideoOption("i_qfactor", "0.71");
    setVideoOption("qcomp", "0.6");
    setVideoOption("qmin", "10");
    setVideoOption("qmax", "51");
    setVideoOption("qdiff", "4");
}

bool AVEncoder::readVideoOptionsFromFile(const char* path)
{
    oprint(LogStream::StandardOutput, "Preset file:%s\n", path);
    std::ifstream in(path);
    std::string line, key, value;
    while (std::getline(in, line))
        if (parsePresetLine(line, key, value))
            setVideoOption(key.c_str(), value.c_str());
    return true;
}

bool AVEncoder::setVideoOption(const char* name, const char* value)
{
    oprint(LogStream::StandardOutput, "Option:%s=%s", name, value);
    if (!videoContext_ ||
        !av_opt_find(videoContext_, name, nullptr, AV_OPT_FLAG_VIDEO_PARAM, AV_OPT_SEARCH_CHILDREN)) {
        oprint(LogStream::StandardOutput, " (invalid)\n");
        return false;
    }
    oprint(LogStream::StandardOutput, " (valid)\n");
    return av_opt_set(videoContext_, name, value, AV_OPT_SEARCH_CHILDREN) >= 0;
}

}  // namespace orvo
