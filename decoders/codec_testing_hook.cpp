#include "orvo/ffmpeg_module.h"

#include <atomic>

namespace orvo {
namespace {
// One bit per FormatIn value (they are small).
std::atomic<unsigned> missingCodecs{0};

unsigned bitOf(FormatIn format) { return format >= 0 && format < 32 ? 1u << unsigned(format) : 0u; }
}  // namespace

void setCodecMissingForTesting(FormatIn format, bool missing)
{
    if (missing)
        missingCodecs.fetch_or(bitOf(format));
    else
        missingCodecs.fetch_and(~bitOf(format));
}

bool isCodecMissingForTesting(FormatIn format) { return (missingCodecs.load() & bitOf(format)) != 0; }

}  // namespace orvo
