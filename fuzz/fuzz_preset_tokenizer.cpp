// The preset file's line syntax on its own: no codec and no option lookup (FFmpeg's option
// search is a string compare per option, which the fuzzer traces; fuzz_encoder_presets
// applies the options to a real encoder).
#include "encoders/preset_line.h"
#include "fuzz/fuzz_check.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    std::string line, key, value;
    while (std::getline(in, line)) {
        std::string body = line;
        if (!body.empty() && body.back() == '\r')
            body.pop_back();
        const size_t first = body.find_first_not_of(" \t");
        const bool setsOption = orvo::parsePresetLine(line, key, value);
        FUZZ_CHECK(setsOption == (first != std::string::npos && body[first] != '#'));
        if (!setsOption)
            continue;
        // The name is the first word; the value is all after the first '=' that follows it.
        FUZZ_CHECK(key.find_first_of(" \t=") == std::string::npos);
        FUZZ_CHECK(body.compare(first, key.size(), key) == 0);
        const size_t equals = body.find('=', first + key.size());
        FUZZ_CHECK(equals == std::string::npos ? value.empty() : value == body.substr(equals + 1));
    }
    return 0;
}
