#include "decoders/frame_stamp.h"

namespace orvo {

void stampFrame(VideoFrame& frame, const Image& image)
{
    frame.setId(image.id());
    frame.attachImageData(image, image.payloadSize());
    frame.setStreamId(image.streamId());
    frame.setImage(image);
}

}  // namespace orvo
