#include "orvo/decoder.h"

AbstractDecoder::~AbstractDecoder() = default;
bool AbstractDecoder::decode(unsigned char*, int, orvo::VideoFrame&, bool) { return false; }
bool AbstractDecoder::fail() const { return false; }
bool AbstractDecoder::is_stream_based() const { return true; }
bool AbstractDecoder::produces_shallow_images() const { return true; }
bool AbstractDecoder::drain(orvo::VideoFrame&) { return false; }
bool AbstractDecoder::nextPicture(orvo::VideoFrame&) { return false; }
bool AbstractDecoder::takeEndedPayload(qint64*, QString*) { return false; }

orvo::DecodingPath AbstractDecoder::decodingPath() const
{
    orvo::DecodingPath path;
    path.engine = orvo::DecodingPath::Engine::Software;
    return path;
}
