// The preset file's line syntax on its own, and the options it names applied to an H.264
// encoder context that is never opened (the encoder itself is fuzz_encoder_presets).
#include "encoders/preset_line.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

namespace {

// A broken property is a finding: say which one, then stop as a crash would.
#define check(ok) \
    ((ok) ? (void)0 : (std::fprintf(stderr, "check failed: %s (line %d)\n", #ok, __LINE__), std::abort()))

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    av_log_set_level(AV_LOG_QUIET);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // One context for the whole campaign: setting an option does not change how the next
    // one is looked up or parsed, and a context per run cost more than the run itself.
    static AVCodecContext* const context = [] {
        const AVCodec* h264 = avcodec_find_encoder(AV_CODEC_ID_H264);
        return h264 ? avcodec_alloc_context3(h264) : nullptr;
    }();
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    std::string line, key, value;
    while (std::getline(in, line)) {
        std::string body = line;
        if (!body.empty() && body.back() == '\r')
            body.pop_back();
        const size_t first = body.find_first_not_of(" \t");
        const bool setsOption = orvo::parsePresetLine(line, key, value);
        check(setsOption == (first != std::string::npos && body[first] != '#'));
        if (!setsOption)
            continue;
        // The name is the first word; the value is all after the first '=' that follows it.
        check(key.find_first_of(" \t=") == std::string::npos);
        check(body.compare(first, key.size(), key) == 0);
        const size_t equals = body.find('=', first + key.size());
        check(equals == std::string::npos ? value.empty() : value == body.substr(equals + 1));
        if (context && av_opt_find(context, key.c_str(), nullptr, AV_OPT_FLAG_VIDEO_PARAM, AV_OPT_SEARCH_CHILDREN))
            av_opt_set(context, key.c_str(), value.c_str(), AV_OPT_SEARCH_CHILDREN);
    }
    return 0;
}
