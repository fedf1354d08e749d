#pragma once
// The decoding paths a camera stream can take, each fed every image and then drained.
#include "orvo/decoder_error.h"
#include "orvo/image.h"
#include "orvo/video_frame.h"

#include <vector>

namespace orvo::test {

enum class Path { Decoder, DecoderZeroCopy, Concurrent, Ordered, SingleThreaded };

struct Outcome {
    std::vector<VideoFrame> frames;
    std::vector<DecoderError> errors;  // the synchronous Decoder's carry no reason
};

// Every image through the decoder or facade under test, then the drain. `allAccepted`:
// expect every image to be taken (decode() returning 1 on the asynchronous paths).
Outcome decodeThrough(Path path, const std::vector<Image>& images, bool allAccepted = true);

}  // namespace orvo::test
