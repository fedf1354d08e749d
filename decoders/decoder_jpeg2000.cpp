#include "orvo/decoder_jpeg2000.h"

#include "backends/aj2k.h"
#include "decoders/format_table.h"

#include <algorithm>
#include <new>

namespace orvo {

unsigned char DecoderJPEG2000::getFormat() const { return formats::forKind(formats::Kind::JPEG2000).code; }

DecoderJPEG2000::DecoderJPEG2000(int scaleLevel) : scaleLevel_(scaleLevel)
{
    if (aj2k_initjp2(&handle_, AJ2K_INIT_STRICT) != 0 || aj2k_reuseimgmemory(handle_, 1) != 0) {
        aj2k_deinitjp2(handle_);
        handle_ = nullptr;
        throw "error in initialization of DecoderJPEG2000";
    }
#ifdef FUZZING_BUILD_MODE_UNSAFE_FOR_PRODUCTION
    aj2k_setmaxthreads(handle_, 1);  // fuzz builds: one thread, so that time and findings are the input's own
#else
    aj2k_setmaxthreads(handle_, 4);
#endif
}

DecoderJPEG2000::~DecoderJPEG2000() { aj2k_deinitjp2(handle_); }

DecoderJPEG2000* DecoderJPEG2000::get() { return new DecoderJPEG2000(0); }

bool DecoderJPEG2000::decode(unsigned char* data, int size, orvo::VideoFrame& frame, bool)
{
    const int s = scaleLevel_;
    int fullWidth = 0, fullHeight = 0, components = 0;
    if (aj2k_jp2memgetdims(handle_, data, size, AJ2K_INPUT_AUTO, &fullWidth, &fullHeight, &components) != 0)
        return false;

    // First guess of the plane sizes; the library enlarges a plane that turns out too small
    // (odd sizes round up at each level).
    const int shift = std::clamp(s, 0, 30);
    int w = fullWidth >> shift, h = fullHeight >> shift;
    w += w & 1;
    h += h & 1;
    int ySize = w * h, uSize = ySize / 2, vSize = ySize / 2;
    unsigned char* y = new (std::nothrow) unsigned char[size_t(ySize)];
    unsigned char* u = new (std::nothrow) unsigned char[size_t(uSize)];
    unsigned char* v = new (std::nothrow) unsigned char[size_t(vSize)];
    if (!y || !u || !v) {
        delete[] y;
        delete[] u;
        delete[] v;
        return false;
    }
    int yBpl = 0, uBpl = 0, vBpl = 0, outWidth = 0, outHeight = 0;
    const int rc = aj2k_jp2memtoraw_splanes(handle_, data, size, AJ2K_INPUT_AUTO, &y, &ySize, &yBpl, &u, &uSize,
                                            &uBpl, &v, &vSize, &vBpl, &outWidth, &outHeight, s, 8);

    // The frame takes the plane memory (new[]) whatever the library answered.
    auto* yb = new MemoryVideoBuffer(y, yBpl * outHeight, yBpl, nullptr, ySize, true);
    auto* ub = new MemoryVideoBuffer(u, uBpl * outHeight, uBpl, nullptr, uSize, true);
    auto* vb = new MemoryVideoBuffer(v, vBpl * outHeight, vBpl, nullptr, vSize, true);
    frame = VideoFrame(yb, ub, vb, QSize(outWidth, outHeight), VideoFrame::Format_YUV422P);
    if (rc != 0)
        return false;
    frame.setMaximalWidth(fullWidth);
    frame.setMaximalHeight(fullHeight);
    return true;
}

}  // namespace orvo
