// The audio buffer script (audio_script.h) against a real open Encoder: raw video and MP2
// sound, mono, on FFmpeg's null muxer. Slow (milliseconds a run); fuzz_audio_buffer runs
// the same scripts in microseconds against an in-process backend.
#include "fuzz/audio_script.h"

#include <unistd.h>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/log.h>
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    if (FILE* null = std::fopen("/dev/null", "w")) {
        ::dup2(::fileno(null), 1);
        std::fclose(null);
    }
    av_log_set_level(AV_LOG_QUIET);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace orvo::fuzz;
    orvo::Encoder enc;
    orvo::EncoderError error;
    if (!enc.open(1, "/dev/null", "null", AV_CODEC_ID_RAWVIDEO, kW, kH, 1, 1, 0, 0, 25, 1, 12, AV_CODEC_ID_MP2,
                  64000, 16000, 1, nullptr, error))
        std::abort();  // a broken installation, not a finding
    runAudioScript(enc, data, size);
    enc.close();
    return 0;
}
