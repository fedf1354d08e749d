#pragma once
// Reads every sample a decoded frame claims to hold, so that a frame whose geometry lies
// (rows past its planes, planes smaller than their size) is caught under ASan and valgrind.
#include "orvo/video_frame.h"

namespace orvo::fuzz {

// Maps the frame for reading (if it is not mapped yet), reads the Y, U and V rows of its
// declared size and restores the mapping state. False when it cannot be mapped.
bool readWholePicture(VideoFrame& frame);

}  // namespace orvo::fuzz
