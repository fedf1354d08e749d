// Placeholder dispatcher: knows no format yet.
#include "orvo/decoder.h"

Decoder::Decoder() = default;
Decoder::Decoder(unsigned char type, int param) { init(type, param); }
Decoder::Decoder(const Decoder& other) = default;
Decoder& Decoder::operator=(const Decoder& other) = default;
Decoder::~Decoder() = default;
bool Decoder::init(unsigned char, int) { return false; }
bool Decoder::isFormat(unsigned char, int) { return false; }
bool Decoder::isInitialized() { return !decoder_.isNull(); }
unsigned char Decoder::getFormat() { return decoder_ ? decoder_->getFormat() : ' '; }
bool Decoder::decode(unsigned char type, unsigned char* data, int size, orvo::VideoFrame& frame, int param, bool iframe)
{
    return init(type, param) && decode(data, size, frame, iframe);
}
bool Decoder::decode(const unsigned char* data, int size, orvo::VideoFrame& frame, bool iframe)
{
    return decoder_ && decoder_->decode(const_cast<unsigned char*>(data), size, frame, iframe);
}
orvo::VideoFrame Decoder::decode2videoframe(unsigned char* data, int size, bool* ok, bool iframe)
{
    orvo::VideoFrame frame;
    const bool r = decode(data, size, frame, iframe);
    if (ok)
        *ok = r;
    return frame;
}
void Decoder::swap(Decoder& other) { decoder_.swap(other.decoder_); }
