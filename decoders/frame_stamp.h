#pragma once
// The one way a decoded frame takes the identity of the image it came from.
#include "orvo/image.h"
#include "orvo/video_frame.h"

namespace orvo {

// Gives `frame` the identity of `image`: its id, its stream id, the image record itself (time,
// channel, flags) and, as the frame's attached data, the image's network header (carrying its
// payload size) followed by the image's attached data. A null frame first gets a body of its
// own. Used wherever a frame is answered for an image, picture or not; the pixels, the scale
// and the decoding time stay as they are.
void stampFrame(VideoFrame& frame, const Image& image);

}  // namespace orvo
