// The wavelet library over FFmpeg's VC-2/Dirac decoder, reduced with swscale.
#include "backends/wavelet_decoder.h"

#include "backends/ffmpeg_decoding_loop.h"
#include "frames/sws_scale.h"
#include "orvo/picture_bound.h"

extern "C" {
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <climits>
#include <cstring>

namespace orvo {

struct WaveletDecoder::Codec {
    std::unique_ptr<FFmpegDecodingLoop> loop;
    AVFrame* picture = av_frame_alloc();
    sws::Scaler scaler;

    ~Codec() { av_frame_free(&picture); }

    // Decodes one self-contained image into `picture`. The decoder holds pictures back until
    // their picture number comes up, so it is drained and reset after every image: images stay
    // independent of the ones before (skipped or repeated numbers do not stall it).
    bool decodeImage(const unsigned char* data, int size)
    {
        av_frame_unref(picture);
        // Only the first picture of a payload counts.
        const FFmpegDecodingLoop::FrameReady keepFirst = [this](AVFrame* f) {
            if (!picture->buf[0])
                av_frame_move_ref(picture, f);
            return true;
        };
        const bool sent = loop->decode(data, size, AV_NOPTS_VALUE, keepFirst) != FFmpegDecodingLoop::Result::SendFailed;
        if (sent)
            loop->drain(keepFirst);
        loop->flush();
        return sent && picture->buf[0];
    }
};

WaveletDecoder::WaveletDecoder(int width, int height, int scaleLevel)
    : width_(width), height_(height), scaleLevel_(std::clamp(scaleLevel, 0, 2))
{
    if (width <= 0 || height <= 0 || width > ORVO_MAX_PICTURE_SIDE || height > ORVO_MAX_PICTURE_SIDE)
        return;
    outputWidth_ = width >> scaleLevel_;
    outputHeight_ = scaleLevel_ < 2 ? height : height / 2;
    if (outputWidth_ < 2 || (outputWidth_ & 1) || outputHeight_ < 1)
        return;

    auto codec = std::make_unique<Codec>();
    FFmpegDecodingLoop::Options options;
    options.threads = 1;  // many cameras decode at once; one thread each
    // A sequence header announcing a much larger picture fails before FFmpeg allocates for
    // it. The bound is generous: the decoder's own work buffers (edges, half-sample planes)
    // count against it too.
    options.maxPixels = int64_t(width) * height * 16;
    codec->loop = FFmpegDecodingLoop::open(avcodec_find_decoder(AV_CODEC_ID_DIRAC), options);
    if (!codec->loop || !codec->picture)
        return;
    codec_ = std::move(codec);
    initialized_ = true;
}

WaveletDecoder::~WaveletDecoder() = default;

bool WaveletDecoder::decode(unsigned char* data, long size, unsigned char* y, unsigned char* u, unsigned char* v,
                            unsigned char* yEnd, unsigned char* uEnd, unsigned char* vEnd)
{
    if (!initialized_ || !data || size <= 0 || size > INT_MAX - AV_INPUT_BUFFER_PADDING_SIZE)
        return false;
    if (!y || !u || !v || yEnd < y || uEnd < u || vEnd < v)
        return false;
    const int ow = outputWidth_, oh = outputHeight_;
    const int cPitch = chromaBytesPerLine(), cLines = chromaLines();
    if (yEnd - y < long(ow) * oh || uEnd - u < long(cPitch) * cLines || vEnd - v < long(cPitch) * cLines)
        return false;

    if (!codec_->decodeImage(data, int(size)))
        return false;
    const AVFrame* f = codec_->picture;
    if (f->width != width_ || f->height != height_ || !f->data[0])
        return false;

    const AVPixelFormat format = AVPixelFormat(f->format);
    if (format == AV_PIX_FMT_YUV420P && ow == f->width && oh == f->height && f->data[1] && f->data[2]) {
        const int cw = (ow + 1) / 2;
        for (int row = 0; row < oh; ++row)
            std::memcpy(y + size_t(row) * ow, f->data[0] + ptrdiff_t(row) * f->linesize[0], size_t(ow));
        for (int row = 0; row < cLines; ++row) {
            std::memcpy(u + size_t(row) * cPitch, f->data[1] + ptrdiff_t(row) * f->linesize[1], size_t(cw));
            std::memcpy(v + size_t(row) * cPitch, f->data[2] + ptrdiff_t(row) * f->linesize[2], size_t(cw));
        }
        return true;
    }
    // Other sizes (levels 1 and 2) and other layouts (4:2:2, 4:4:4, 10 bits) through swscale.
    SwsContext* scaler =
        codec_->scaler.get({f->width, f->height, format, false, ow, oh, AV_PIX_FMT_YUV420P, SWS_BILINEAR});
    if (!scaler)
        return false;
    uint8_t* const dst[4] = {y, u, v, nullptr};
    const int dstStride[4] = {ow, cPitch, cPitch, 0};
    // The caller's planes are sized exactly: swscale writes through padded rows.
    sws::Planes source = sws::Planes::of(format, f->width, f->height, f->data, f->linesize);
    source.overreadable = true;
    return sws::scale(scaler, source, sws::Planes::of(AV_PIX_FMT_YUV420P, ow, oh, dst, dstStride),
                      sws::Room::Exact);
}

}  // namespace orvo
