#include "orvo/decoder_jpeg2000.h"

#include "backends/aj2k.h"
#include "decoders/format_table.h"
#include "decoders/jpeg_header.h"
#include "frames/plane_pool.h"

#include <algorithm>
#include <new>

namespace orvo {

unsigned char DecoderJPEG2000::getFormat() const { return formats::forKind(formats::Kind::JPEG2000).code; }

DecoderJPEG2000::DecoderJPEG2000(int scaleLevel) : scaleLevel_(scaleLevel), pool_(std::make_unique<PlanePool>())
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
    int fullWidth = 0, fullHeight = 0, components = 0;
    if (aj2k_jp2memgetdims(handle_, data, size, AJ2K_INPUT_AUTO, &fullWidth, &fullHeight, &components) != 0)
        return false;
    // Each level halves the picture, rounding up; a level beyond those the code stream holds
    // gives its smallest picture, which still covers the size. Sides stay below 2^16.
    const int fitting = maxSize_.isEmpty()
                            ? 0
                            : lowresFactorFor(fullWidth, fullHeight, maxSize_.width(), maxSize_.height(), 16);
    const int s = std::max(scaleLevel_, fitting);

    int w = 0, h = 0;
    if (aj2k_jp2memdecode(handle_, data, size, AJ2K_INPUT_AUTO, s, &w, &h) != 0) {
        frame = VideoFrame();  // replaced by an empty picture
        return false;
    }
    // Rows of an even length: the library writes the picture at an even width.
    const int evenWidth = w + (w & 1);
    VideoFrame out;
    try {
        out = pool_->allocate(PlaneLayout{w, h, VideoFrame::Format_YUV422P, evenWidth, evenWidth / 2, false});
    } catch (const std::bad_alloc&) {
        out = VideoFrame();  // no memory: no picture
    }
    if (out.isNull() || !out.map(QAbstractVideoBuffer::WriteOnly)) {
        frame = VideoFrame();
        return false;
    }
    const int rc = aj2k_writeplanes(handle_, out.bitsY(), int(out.bytesPerLineY()), out.bitsU(), out.bitsV(),
                                    int(out.bytesPerLineU()), 1);
    out.unmap();
    frame = out;
    if (rc != 0)
        return false;
    frame.setMaximalWidth(fullWidth);
    frame.setMaximalHeight(fullHeight);
    return true;
}

}  // namespace orvo
