// MxPEG over FFmpeg's MxPEG decoder, which keeps the previous picture for the P-frames.
#include "backends/mxpeg.h"

#include "backends/ffmpeg_decoding_loop.h"
#include "frames/sws_scale.h"

extern "C" {
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

namespace {

struct MxpegState {
    std::unique_ptr<orvo::FFmpegDecodingLoop> loop;
    AVFrame* picture = av_frame_alloc();
    SwsContext* scaler = nullptr;

    ~MxpegState()
    {
        sws_freeContext(scaler);
        av_frame_free(&picture);
    }
};

// Frame headers that carry the size: SOF0-3, 5-7, 9-11, 13-15 (not DHT C4, JPG C8, DAC CC).
bool isStartOfFrame(unsigned char m) { return m >= 0xC0 && m <= 0xCF && m != 0xC4 && m != 0xC8 && m != 0xCC; }

std::string ffmpegError(const char* what, int err)
{
    return std::string(what) + ": " + orvo::FFmpegDecodingLoop::errorText(err);
}

MxpegState* createState(int lowres = 0)
{
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_MXPEG);
    if (!codec)
        throw std::runtime_error("FFmpeg has no MxPEG decoder");
    auto state = std::make_unique<MxpegState>();
    // One thread: many cameras decode at once. A hostile frame header above the picture bound
    // fails before FFmpeg allocates.
    orvo::FFmpegDecodingLoop::Options options;
    options.threads = 1;
    options.lowres = std::clamp(lowres, 0, int(codec->max_lowres));
    int err = 0;
    state->loop = orvo::FFmpegDecodingLoop::open(codec, options, &err);
    if (!state->picture || err == AVERROR(ENOMEM))
        throw std::bad_alloc();
    if (!state->loop)
        throw std::runtime_error(ffmpegError("cannot open the MxPEG decoder", err));
    return state.release();
}

void copyPlane(uint8_t* dst, int dstPitch, const uint8_t* src, int srcPitch, int width, int lines)
{
    for (int row = 0; row < lines; ++row)
        std::memcpy(dst + size_t(row) * dstPitch, src + ptrdiff_t(row) * srcPitch, size_t(width));
}

// JPEG's full-range formats as their plain counterparts: only the chroma layout changes on
// the way to 4:2:0, sample values are carried over as they are.
AVPixelFormat plainFormat(AVPixelFormat f)
{
    switch (f) {
    case AV_PIX_FMT_YUVJ420P: return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P: return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P: return AV_PIX_FMT_YUV444P;
    case AV_PIX_FMT_YUVJ440P: return AV_PIX_FMT_YUV440P;
    case AV_PIX_FMT_YUVJ411P: return AV_PIX_FMT_YUV411P;
    default: return f;
    }
}

}  // namespace

void xpegGetWH(void* data, int size, int* width, int* height)
{
    if (width)
        *width = 0;
    if (height)
        *height = 0;
    const auto* p = static_cast<const unsigned char*>(data);
    if (!p || !width || !height || size < 4 || p[0] != 0xFF || p[1] != 0xD8)
        return;
    int i = 2;
    while (i + 4 <= size) {
        if (p[i] != 0xFF)
            return;  // not at a marker: damaged header
        const unsigned char m = p[i + 1];
        if (m == 0xFF) {  // fill byte
            ++i;
            continue;
        }
        if (m == 0x01 || (m >= 0xD0 && m <= 0xD8)) {  // markers without a segment
            i += 2;
            continue;
        }
        if (m == 0xD9 || m == 0xDA)  // end of image or start of scan: no frame header
            return;
        const int length = (p[i + 2] << 8) | p[i + 3];
        if (length < 2 || length > size - i - 2)
            return;
        if (isStartOfFrame(m)) {
            if (length >= 8) {
                const int h = (p[i + 5] << 8) | p[i + 6];
                const int w = (p[i + 7] << 8) | p[i + 8];
                if (w > 0 && h > 0) {
                    *width = w;
                    *height = h;
                }
            }
            return;
        }
        i += 2 + length;
    }
}

void mxpeg2yuv(void*& state, char* data, int size, int width, int height, void* y, void* u, void* v)
{
    if (!data || size <= 0 || width <= 0 || height <= 0 || !y || !u || !v)
        throw std::runtime_error("mxpeg2yuv: invalid arguments");
    if (size > INT32_MAX - AV_INPUT_BUFFER_PADDING_SIZE)
        throw std::runtime_error("mxpeg2yuv: image too large");
    if (!state)
        state = createState();
    auto* s = static_cast<MxpegState*>(state);

    // The decoder gives one picture per image; should it give more, the first counts.
    av_frame_unref(s->picture);
    const auto result = s->loop->decode(reinterpret_cast<const uint8_t*>(data), size, AV_NOPTS_VALUE, [&](AVFrame* f) {
        if (!s->picture->buf[0])
            av_frame_move_ref(s->picture, f);
        return true;
    });
    if (result != orvo::FFmpegDecodingLoop::Result::Ok) {
        if (s->loop->lastError() == AVERROR(ENOMEM))
            throw std::bad_alloc();
        throw std::runtime_error(ffmpegError("MxPEG decoding failed", s->loop->lastError()));
    }
    if (!s->picture->buf[0])
        throw std::runtime_error("MxPEG image without a complete picture (no I-frame yet?)");

    const AVFrame* f = s->picture;
    if (f->width != width || f->height != height || !f->data[0])
        throw std::runtime_error("MxPEG picture of " + std::to_string(f->width) + "x" + std::to_string(f->height) +
                                 " does not fit planes of " + std::to_string(width) + "x" + std::to_string(height));

    auto* py = static_cast<uint8_t*>(y);
    auto* pu = static_cast<uint8_t*>(u);
    auto* pv = static_cast<uint8_t*>(v);
    const int cw = (width + 1) / 2, ch = (height + 1) / 2;
    const AVPixelFormat format = plainFormat(AVPixelFormat(f->format));
    if (format == AV_PIX_FMT_YUV420P) {
        copyPlane(py, width, f->data[0], f->linesize[0], width, height);
        copyPlane(pu, cw, f->data[1], f->linesize[1], cw, ch);
        copyPlane(pv, cw, f->data[2], f->linesize[2], cw, ch);
        return;
    }
    if (format == AV_PIX_FMT_GRAY8) {
        copyPlane(py, width, f->data[0], f->linesize[0], width, height);
        std::memset(pu, 128, size_t(cw) * ch);
        std::memset(pv, 128, size_t(cw) * ch);
        return;
    }
    s->scaler = sws_getCachedContext(s->scaler, width, height, format, width, height, AV_PIX_FMT_YUV420P,
                                     SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (!s->scaler)
        throw std::runtime_error("MxPEG picture in an unsupported pixel format");
    uint8_t* const dst[4] = {py, pu, pv, nullptr};
    const int dstStride[4] = {width, cw, cw, 0};
    // The caller's planes are sized exactly: swscale writes through padded rows.
    orvo::sws::Planes source = orvo::sws::Planes::of(format, width, height, f->data, f->linesize);
    source.overreadable = true;
    if (!orvo::sws::scale(s->scaler, source, orvo::sws::Planes::of(AV_PIX_FMT_YUV420P, width, height, dst, dstStride),
                          orvo::sws::Room::Exact))
        throw std::runtime_error("MxPEG picture could not be converted");
}

void* mxpegCreateState(int lowres) { return createState(lowres); }

int mxpegMaxLowres()
{
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_MXPEG);
    return codec ? codec->max_lowres : 0;
}

void mxpegFreeState(void*& state)
{
    delete static_cast<MxpegState*>(state);
    state = nullptr;
}
