// The H.264 preset file reader, through its public path: the input becomes the preset
// file, an H.264 encoder opens on FFmpeg's null muxer (nothing is written), encodes two
// small pictures and closes.
#include "orvo/av_encoder.h"
#include "orvo/encoder.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

namespace {
std::string presetPath;
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The reader reports every option on standard output; libFuzzer reports on standard error.
    if (FILE* null = std::fopen("/dev/null", "w")) {
        ::dup2(::fileno(null), 1);
        std::fclose(null);
    }
    av_log_set_level(AV_LOG_QUIET);
    presetPath = "/tmp/orvo-fuzz-preset-" + std::to_string(::getpid()) + ".ffpreset";
    orvo::AVEncoder::setPresetFilePath(presetPath);
    std::atexit([] { std::remove(presetPath.c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (FILE* f = std::fopen(presetPath.c_str(), "wb")) {
        if (size)
            std::fwrite(data, 1, size, f);
        std::fclose(f);
    }
    constexpr int kW = 32, kH = 16;
    orvo::AVEncoder encoder;
    orvo::EncoderError error;
    int presetOn = 1;
    if (encoder.open("/dev/null", "null", AV_CODEC_ID_H264, kW, kH, 1, 1, 100000, 0, 25, 1, 12, 0, 0, 0, 0,
                     &presetOn, error, false)) {
        std::vector<unsigned char> y(kW * kH, 0x60), u(kW * kH / 4, 0x80), v(kW * kH / 4, 0x80);
        for (int i = 0; i < 2; ++i) {
            y[i] = 0x90;
            encoder.encode(y.data(), u.data(), v.data(), kW, kW / 2, kW / 2, nullptr, 0);
        }
        encoder.close();
    }
    return 0;
}
