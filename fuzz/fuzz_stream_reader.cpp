// StreamReader over in-memory streams (byte 0 picks the demuxer, or probing), and the
// first images it yields through a Decoder, so that odd cuts reach the packet feeder.
#include "fuzz/fuzz_input.h"
#include "orvo/decoder.h"
#include "orvo/stream_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const char* const kFormats[] = {"", "h264", "hevc", "mpegvideo", "m4v", "mjpeg", "matroska", "mp4"};
    if (size < 2)
        return 0;
    orvo::fuzz::silenceQtDebug();
    const char* format = kFormats[data[0] % (sizeof kFormats / sizeof kFormats[0])];
    const QByteArray stream(reinterpret_cast<const char*>(data + 1), int(size - 1));
    orvo::StreamReader reader;
    if (!reader.openData(stream, QString::fromLatin1(format)))
        return 0;
    Decoder decoder;
    orvo::Image image;
    orvo::VideoFrame frame;
    for (int i = 0; i < 64 && reader.read(image) == orvo::StreamReader::Result::Image; ++i)
        if (i < 8)
            decoder.decodeImage(image, frame);
    while (decoder.drain(frame)) {
    }
    return 0;
}
