// JPEG 2000 decoding over OpenJPEG: memory input, resolution reduction, 8-bit 4:2:2 output.
#include "backends/aj2k.h"

#include "backends/aj2k_image.h"
#include "backends/aj2k_planes.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <vector>

struct aj2k_handle {
    int flags = AJ2K_INIT_DEFAULT;
    int threads = 1;
    bool reuse = false;
    std::string lastError;

    // Header kept by aj2k_jp2memgetdims for the next decode of the same buffer.
    struct Kept {
        opj_codec_t* codec = nullptr;
        opj_stream_t* stream = nullptr;
        opj_image_t* image = nullptr;
        const unsigned char* data = nullptr;
        int size = 0;
        uint64_t headerHash = 0;
    } kept;

    // The picture aj2k_jp2memdecode decoded, until aj2k_writeplanes writes it.
    opj_image_t* decoded = nullptr;
    orvo::sws::Scaler scaler;
    std::vector<uint8_t> scratch;
};

namespace {

// ---------------------------------------------------------------------------------------
// Handle helpers

int fail(aj2k_handle* h, int code, const std::string& text)
{
    if (h && h->lastError.empty())
        h->lastError = text;
    return code;
}

void dropDecoded(aj2k_handle* h)
{
    if (h->decoded)
        opj_image_destroy(h->decoded);
    h->decoded = nullptr;
}

void dropKept(aj2k_handle* h)
{
    dropDecoded(h);
    auto& k = h->kept;
    if (k.image)
        opj_image_destroy(k.image);
    if (k.stream)
        opj_stream_destroy(k.stream);
    if (k.codec)
        opj_destroy_codec(k.codec);
    k = aj2k_handle::Kept();
}

// Cheap fingerprint of the first bytes (the main header) so that a kept header is not used
// for a buffer that was refilled at the same address.
uint64_t headerHash(const unsigned char* data, int size)
{
    uint64_t hash = 1469598103934665603ull;
    for (int i = 0; i < std::min(size, 512); ++i)
        hash = (hash ^ data[i]) * 1099511628211ull;
    return hash;
}

// Makes *plane hold at least `need` bytes.
bool ensurePlane(unsigned char** plane, int* size, int64_t need)
{
    if (*plane && *size >= need)
        return true;
    if (need > INT32_MAX)
        return false;
    auto* fresh = new (std::nothrow) unsigned char[size_t(need)];
    if (!fresh)
        return false;
    delete[] *plane;
    *plane = fresh;
    *size = int(need);
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// API

extern "C" {

int aj2k_initjp2(aj2k_handle** handle, int flags)
{
    if (!handle)
        return AJ2K_ERR_ARGUMENT;
    *handle = nullptr;
    if (flags & ~AJ2K_INIT_STRICT)
        return AJ2K_ERR_ARGUMENT;
    auto* h = new (std::nothrow) aj2k_handle;
    if (!h)
        return AJ2K_ERR_MEMORY;
    h->flags = flags;
    *handle = h;
    return AJ2K_OK;
}

void aj2k_deinitjp2(aj2k_handle* handle)
{
    if (!handle)
        return;
    dropKept(handle);
    delete handle;
}

int aj2k_reuseimgmemory(aj2k_handle* handle, int reuse)
{
    if (!handle)
        return AJ2K_ERR_ARGUMENT;
    handle->lastError.clear();
    handle->reuse = reuse != 0;
    if (!handle->reuse)
        dropKept(handle);
    return AJ2K_OK;
}

int aj2k_setmaxthreads(aj2k_handle* handle, int threads)
{
    if (!handle)
        return AJ2K_ERR_ARGUMENT;
    handle->lastError.clear();
    if (threads < 1 || threads > 64)
        return fail(handle, AJ2K_ERR_ARGUMENT, "thread count out of range");
    handle->threads = threads;
    dropKept(handle);  // a kept codec was set up with the old count
    return AJ2K_OK;
}

int aj2k_jp2memgetdims(aj2k_handle* handle, const unsigned char* data, int size, int input, int* width,
                       int* height, int* components)
{
    if (width)
        *width = 0;
    if (height)
        *height = 0;
    if (components)
        *components = 0;
    if (!handle || !width || !height || !components)
        return AJ2K_ERR_ARGUMENT;
    handle->lastError.clear();
    dropKept(handle);

    orvo::aj2k::OpenedImage o;
    const int rc = orvo::aj2k::openImage(data, size, input, handle->flags & AJ2K_INIT_STRICT, handle->threads,
                                              handle->lastError, o);
    if (rc != AJ2K_OK) {
        orvo::aj2k::closeImage(o);
        return rc;
    }
    *width = int(o.image->x1 - o.image->x0);
    *height = int(o.image->y1 - o.image->y0);
    *components = int(o.image->numcomps);
    if (handle->reuse) {
        handle->kept.codec = o.codec;
        handle->kept.stream = o.stream;
        handle->kept.image = o.image;
        handle->kept.data = data;
        handle->kept.size = size;
        handle->kept.headerHash = headerHash(data, size);
    } else {
        orvo::aj2k::closeImage(o);
    }
    return AJ2K_OK;
}

int aj2k_jp2memdecode(aj2k_handle* handle, const unsigned char* data, int size, int input, int scaleLevel,
                      int* width, int* height)
{
    if (width)
        *width = 0;
    if (height)
        *height = 0;
    if (!handle || !width || !height)
        return AJ2K_ERR_ARGUMENT;
    handle->lastError.clear();
    dropDecoded(handle);

    orvo::aj2k::OpenedImage o;
    const auto& k = handle->kept;
    if (k.codec && k.data == data && k.size == size && data && k.headerHash == headerHash(data, size)) {
        o.codec = k.codec;
        o.stream = k.stream;
        o.image = k.image;
        handle->kept = aj2k_handle::Kept();
    } else {
        dropKept(handle);
        const int rc = orvo::aj2k::openImage(data, size, input, handle->flags & AJ2K_INIT_STRICT, handle->threads,
                                              handle->lastError, o);
        if (rc != AJ2K_OK) {
            orvo::aj2k::closeImage(o);
            return rc;
        }
    }
    // The error handler of a kept codec points at this handle too.
    struct Closer {
        orvo::aj2k::OpenedImage& o;
        ~Closer() { orvo::aj2k::closeImage(o); }
    } closer{o};

    // Levels beyond the code stream's resolutions give its smallest picture.
    int level = std::max(scaleLevel, 0);
    if (level > 0) {
        opj_codestream_info_v2_t* info = opj_get_cstr_info(o.codec);
        int maxLevel = 0;
        if (info && info->m_default_tile_info.tccp_info) {
            maxLevel = 32;
            for (OPJ_UINT32 c = 0; c < info->nbcomps; ++c)
                maxLevel = std::min(maxLevel, int(info->m_default_tile_info.tccp_info[c].numresolutions) - 1);
        }
        opj_destroy_cstr_info(&info);
        level = std::min(level, std::max(maxLevel, 0));
    }
    if (!opj_set_decoded_resolution_factor(o.codec, OPJ_UINT32(level)))
        return fail(handle, AJ2K_ERR_DECODE, "cannot reduce the resolution");
    if (!opj_decode(o.codec, o.stream, o.image) || !opj_end_decompress(o.codec, o.stream))
        return fail(handle, AJ2K_ERR_DECODE, "decoding failed");
    int w = 0, h = 0;
    if (!orvo::aj2k::pictureSize(o.image, &w, &h))
        return fail(handle, AJ2K_ERR_DECODE, "no decoded picture");
    // The picture stays for aj2k_writeplanes; codec and stream go now.
    handle->decoded = o.image;
    o.image = nullptr;
    *width = w;
    *height = h;
    return AJ2K_OK;
}

int aj2k_writeplanes(aj2k_handle* handle, unsigned char* y, int yBytesPerLine, unsigned char* u, unsigned char* v,
                     int uvBytesPerLine, int slack)
{
    if (!handle)
        return AJ2K_ERR_ARGUMENT;
    handle->lastError.clear();
    int width = 0, height = 0;
    if (!handle->decoded || !orvo::aj2k::pictureSize(handle->decoded, &width, &height))
        return fail(handle, AJ2K_ERR_ARGUMENT, "no decoded picture to write");
    const int evenWidth = width + (width & 1);
    if (!y || !u || !v || yBytesPerLine < evenWidth || uvBytesPerLine < evenWidth / 2) {
        dropDecoded(handle);
        return fail(handle, AJ2K_ERR_ARGUMENT, "the planes cannot hold the picture");
    }
    orvo::aj2k::Planes422 planes;
    planes.y = y;
    planes.yBytesPerLine = yBytesPerLine;
    planes.u = u;
    planes.v = v;
    planes.uvBytesPerLine = uvBytesPerLine;
    planes.room = slack ? orvo::sws::Room::Slack : orvo::sws::Room::Exact;
    const bool written = orvo::aj2k::writePlanes(handle->decoded, planes, handle->scaler, handle->scratch);
    dropDecoded(handle);
    return written ? AJ2K_OK : fail(handle, AJ2K_ERR_MEMORY, "cannot convert the picture");
}

int aj2k_jp2memtoraw_splanes(aj2k_handle* handle, const unsigned char* data, int size, int input,
                             unsigned char** y, int* ySize, int* yBytesPerLine,
                             unsigned char** u, int* uSize, int* uBytesPerLine,
                             unsigned char** v, int* vSize, int* vBytesPerLine,
                             int* width, int* height, int scaleLevel, int bitsPerSample)
{
    if (width)
        *width = 0;
    if (height)
        *height = 0;
    if (!handle || !y || !ySize || !yBytesPerLine || !u || !uSize || !uBytesPerLine || !v || !vSize ||
        !vBytesPerLine || !width || !height)
        return AJ2K_ERR_ARGUMENT;
    *yBytesPerLine = *uBytesPerLine = *vBytesPerLine = 0;
    for (int* s : {ySize, uSize, vSize})
        if (*s < 0)
            *s = 0;
    handle->lastError.clear();
    if (bitsPerSample != 8)
        return fail(handle, AJ2K_ERR_ARGUMENT, "only 8 bits per sample are produced");

    int W = 0, H = 0;
    const int rc = aj2k_jp2memdecode(handle, data, size, input, scaleLevel, &W, &H);
    if (rc != AJ2K_OK)
        return rc;
    const int yBpl = W + (W & 1);
    const int cBpl = yBpl / 2;
    if (!ensurePlane(y, ySize, int64_t(yBpl) * H) || !ensurePlane(u, uSize, int64_t(cBpl) * H) ||
        !ensurePlane(v, vSize, int64_t(cBpl) * H)) {
        dropDecoded(handle);
        return fail(handle, AJ2K_ERR_MEMORY, "cannot allocate the planes");
    }
    // The caller's buffers are sized exactly: no room for swscale behind them.
    const int written = aj2k_writeplanes(handle, *y, yBpl, *u, *v, cBpl, 0);
    if (written != AJ2K_OK)
        return written;
    *yBytesPerLine = yBpl;
    *uBytesPerLine = *vBytesPerLine = cBpl;
    *width = W;
    *height = H;
    return AJ2K_OK;
}

const char* aj2k_lasterror(const aj2k_handle* handle) { return handle ? handle->lastError.c_str() : ""; }

}  // extern "C"
