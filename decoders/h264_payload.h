#pragma once
// The cut and repairs that DecoderH264 applies to camera payloads, callable on their own.
// Start codes are the four bytes 00 00 00 01.

namespace orvo::h264 {

// Number of leading bytes of the payload to decode, or -1 when there is no start code
// at offsets 1 .. size - 4. May rewrite doubled start codes in place.
int cameraPayloadLength(unsigned char* data, int size, bool removeLastExtraByte, bool removeDoubleStartCodes);

// Turns the first of two adjacent start codes in data[0 .. length) into zero padding,
// walking forward so that a run of start codes shrinks to one.
void repairDoubleStartCodes(unsigned char* data, int length);

}  // namespace orvo::h264
