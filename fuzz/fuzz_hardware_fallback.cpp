// H.264 and H.265 images ('h', 'e') on the hardware path, over the emulated engine: every
// picture goes through the engine's download, the cropping of a hardware picture (from the
// stream's own, fuzzed, cropping window) and the NV12 conversion, and the engine is made to
// fail at one of its failure points, so that the switch to software meets any stream state.
// Option bits 0x01: H.265; (options >> 1) % 6: the failure point (5: none); (options >> 4) & 7:
// how many passes fail. Each image is still answered once (decode_sequence.h).
#include "fuzz/decode_sequence.h"
#include "orvo/hardware_testing.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const orvo::fuzz::Input in = orvo::fuzz::split(data, size);
    orvo::resetHardwareStateForTesting();
    orvo::setEmulatedHardwareForTesting(true);
    orvo::DecoderPreferences::instance()->setHardwareDecoding(orvo::HardwareDecoding::Auto);
    const int point = (in.options >> 1) % 6;
    if (point < 5)
        orvo::setHardwareFailureForTesting(orvo::HardwareFailurePoint(point), 1 + ((in.options >> 4) & 7));
    orvo::fuzz::decodeSequence(in, (in.options & 0x01) ? 'e' : 'h', 0);
    return 0;
}
