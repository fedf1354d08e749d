// JPEG 2000 decoding over OpenJPEG: memory input, resolution reduction, 8-bit 4:2:2 output.
#include "backends/aj2k.h"

#include <openjpeg.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>

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
};

namespace {

// ---------------------------------------------------------------------------------------
// Memory stream

struct MemorySource {
    const unsigned char* data;
    OPJ_SIZE_T size;
    OPJ_SIZE_T pos;
};

OPJ_SIZE_T readMem(void* buffer, OPJ_SIZE_T n, void* user)
{
    auto* s = static_cast<MemorySource*>(user);
    if (s->pos >= s->size)
        return OPJ_SIZE_T(-1);
    const OPJ_SIZE_T count = std::min(n, s->size - s->pos);
    std::memcpy(buffer, s->data + s->pos, count);
    s->pos += count;
    return count;
}

OPJ_OFF_T skipMem(OPJ_OFF_T n, void* user)
{
    auto* s = static_cast<MemorySource*>(user);
    if (n < 0) {
        const OPJ_SIZE_T back = std::min<OPJ_SIZE_T>(OPJ_SIZE_T(-n), s->pos);
        s->pos -= back;
        return -OPJ_OFF_T(back);
    }
    const OPJ_SIZE_T forward = std::min<OPJ_SIZE_T>(OPJ_SIZE_T(n), s->size - s->pos);
    s->pos += forward;
    return OPJ_OFF_T(forward);
}

OPJ_BOOL seekMem(OPJ_OFF_T n, void* user)
{
    auto* s = static_cast<MemorySource*>(user);
    if (n < 0 || OPJ_SIZE_T(n) > s->size)
        return OPJ_FALSE;
    s->pos = OPJ_SIZE_T(n);
    return OPJ_TRUE;
}

void freeSource(void* user) { delete static_cast<MemorySource*>(user); }

opj_stream_t* memoryStream(const unsigned char* data, int size)
{
    auto* src = new (std::nothrow) MemorySource{data, OPJ_SIZE_T(size), 0};
    if (!src)
        return nullptr;
    opj_stream_t* stream = opj_stream_create(OPJ_J2K_STREAM_CHUNK_SIZE, OPJ_TRUE);
    if (!stream) {
        delete src;
        return nullptr;
    }
    opj_stream_set_user_data(stream, src, freeSource);
    opj_stream_set_user_data_length(stream, OPJ_UINT64(size));
    opj_stream_set_read_function(stream, readMem);
    opj_stream_set_skip_function(stream, skipMem);
    opj_stream_set_seek_function(stream, seekMem);
    return stream;
}

// ---------------------------------------------------------------------------------------
// Handle helpers

int fail(aj2k_handle* h, int code, const std::string& text)
{
    if (h && h->lastError.empty())
        h->lastError = text;
    return code;
}

void onOpenJpegError(const char* msg, void* user)
{
    auto* h = static_cast<aj2k_handle*>(user);
    if (h->lastError.empty() && msg) {
        h->lastError = msg;
        while (!h->lastError.empty() && (h->lastError.back() == '\n' || h->lastError.back() == ' '))
            h->lastError.pop_back();
    }
}

void quiet(const char*, void*) {}

void dropKept(aj2k_handle* h)
{
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

bool isJp2(const unsigned char* d, int size)
{
    static const unsigned char signature[12] = {0, 0, 0, 0x0C, 'j', 'P', ' ', ' ', 0x0D, 0x0A, 0x87, 0x0A};
    return size >= 12 && std::memcmp(d, signature, 12) == 0;
}

bool isJ2k(const unsigned char* d, int size)
{
    return size >= 4 && d[0] == 0xFF && d[1] == 0x4F && d[2] == 0xFF && d[3] == 0x51;
}

struct Opened {
    opj_codec_t* codec = nullptr;
    opj_stream_t* stream = nullptr;
    opj_image_t* image = nullptr;
};

// Creates codec and stream and reads the main header.
int openImage(aj2k_handle* h, const unsigned char* data, int size, int input, Opened& out)
{
    if (!data || size <= 0)
        return fail(h, AJ2K_ERR_ARGUMENT, "no data");
    OPJ_CODEC_FORMAT format;
    if (input == AJ2K_INPUT_J2K || (input == AJ2K_INPUT_AUTO && isJ2k(data, size)))
        format = OPJ_CODEC_J2K;
    else if (input == AJ2K_INPUT_JP2 || (input == AJ2K_INPUT_AUTO && isJp2(data, size)))
        format = OPJ_CODEC_JP2;
    else if (input == AJ2K_INPUT_AUTO)
        return fail(h, AJ2K_ERR_FORMAT, "neither a J2K code stream nor a JP2 file");
    else
        return fail(h, AJ2K_ERR_ARGUMENT, "unknown input kind");

    out.codec = opj_create_decompress(format);
    if (!out.codec)
        return fail(h, AJ2K_ERR_MEMORY, "cannot create the decoder");
    opj_set_error_handler(out.codec, onOpenJpegError, h);
    opj_set_warning_handler(out.codec, quiet, nullptr);
    opj_set_info_handler(out.codec, quiet, nullptr);
    opj_dparameters_t params;
    opj_set_default_decoder_parameters(&params);
    if (!opj_setup_decoder(out.codec, &params))
        return fail(h, AJ2K_ERR_DECODE, "cannot set up the decoder");
    opj_decoder_set_strict_mode(out.codec, (h->flags & AJ2K_INIT_STRICT) ? OPJ_TRUE : OPJ_FALSE);
    if (h->threads > 1)
        opj_codec_set_threads(out.codec, h->threads);  // single-threaded if OpenJPEG has no threads

    out.stream = memoryStream(data, size);
    if (!out.stream)
        return fail(h, AJ2K_ERR_MEMORY, "cannot create the input stream");
    if (!opj_read_header(out.stream, out.codec, &out.image) || !out.image)
        return fail(h, AJ2K_ERR_FORMAT, "cannot read the header");

    const opj_image_t* img = out.image;
    if (img->numcomps < 1 || !img->comps || img->x1 <= img->x0 || img->y1 <= img->y0)
        return fail(h, AJ2K_ERR_FORMAT, "image without components or area");
    const uint64_t w = img->x1 - img->x0, hgt = img->y1 - img->y0;
    if (w > 65535 || hgt > 65535 || w * hgt > uint64_t(AJ2K_MAX_PIXELS))
        return fail(h, AJ2K_ERR_SIZE, "image too large: " + std::to_string(w) + "x" + std::to_string(hgt));
    return AJ2K_OK;
}

void closeImage(Opened& o)
{
    if (o.image)
        opj_image_destroy(o.image);
    if (o.stream)
        opj_stream_destroy(o.stream);
    if (o.codec)
        opj_destroy_codec(o.codec);
    o = Opened();
}

// ---------------------------------------------------------------------------------------
// Conversion of decoded components to 8-bit planes

// One decoded component, read as 8-bit samples at clamped coordinates.
struct Component {
    const OPJ_INT32* data = nullptr;
    int w = 0, h = 0;
    int offset = 0;  // added to signed samples
    int down = 0;    // right shift for precisions above 8
    int up = 0;      // left shift for precisions below 8

    bool init(const opj_image_comp_t& c)
    {
        if (!c.data || c.w == 0 || c.h == 0 || c.w > 65535 || c.h > 65535 || c.prec < 1 || c.prec > 31)
            return false;
        data = c.data;
        w = int(c.w);
        h = int(c.h);
        offset = c.sgnd ? int(1u << (c.prec - 1)) : 0;
        down = c.prec > 8 ? int(c.prec) - 8 : 0;
        up = c.prec < 8 ? 8 - int(c.prec) : 0;
        return true;
    }
    const OPJ_INT32* row(int y) const { return data + size_t(std::min(y, h - 1)) * size_t(w); }
    int at(const OPJ_INT32* r, int x) const
    {
        const int64_t v = ((int64_t(r[std::min(x, w - 1)]) + offset) >> down) << up;
        return int(std::clamp<int64_t>(v, 0, 255));
    }
};

// Source row of a component of `rows` rows for output row `row` of `H`.
inline int scaleRow(int row, int rows, int H) { return int(int64_t(row) * rows / H); }

inline unsigned char clamp8(int v) { return static_cast<unsigned char>(std::clamp(v, 0, 255)); }

// BT.601 video range, 16-bit fixed point.
constexpr int kYR = 16829, kYG = 33039, kYB = 6416;
constexpr int kUR = -9714, kUG = -19071, kUB = 28784;
constexpr int kVR = 28784, kVG = -24103, kVB = -4681;

void rgbTo422(const Component& r, const Component& g, const Component& b, int W, int H, unsigned char* y, int yBpl,
              unsigned char* u, unsigned char* v, int cBpl)
{
    const int cw = (W + 1) / 2;
    for (int row = 0; row < H; ++row) {
        const int ry = scaleRow(row, r.h, H), gy = scaleRow(row, g.h, H), by = scaleRow(row, b.h, H);
        const OPJ_INT32 *pr = r.row(ry), *pg = g.row(gy), *pb = b.row(by);
        unsigned char* yl = y + size_t(row) * yBpl;
        unsigned char* ul = u + size_t(row) * cBpl;
        unsigned char* vl = v + size_t(row) * cBpl;
        for (int cx = 0; cx < cw; ++cx) {
            const int x0 = 2 * cx, x1 = std::min(x0 + 1, W - 1);
            const int r0 = r.at(pr, x0), g0 = g.at(pg, x0), b0 = b.at(pb, x0);
            const int r1 = r.at(pr, x1), g1 = g.at(pg, x1), b1 = b.at(pb, x1);
            yl[x0] = clamp8((kYR * r0 + kYG * g0 + kYB * b0 + (16 << 16) + (1 << 15)) >> 16);
            if (x0 + 1 < W)
                yl[x0 + 1] = clamp8((kYR * r1 + kYG * g1 + kYB * b1 + (16 << 16) + (1 << 15)) >> 16);
            const int rs = r0 + r1, gs = g0 + g1, bs = b0 + b1;  // pair sums: chroma of the pair's mean
            ul[cx] = clamp8((kUR * rs + kUG * gs + kUB * bs + (128 << 17) + (1 << 16)) >> 17);
            vl[cx] = clamp8((kVR * rs + kVG * gs + kVB * bs + (128 << 17) + (1 << 16)) >> 17);
        }
    }
}

void lumaPlane(const Component& c, int W, int H, unsigned char* y, int yBpl)
{
    for (int row = 0; row < H; ++row) {
        const OPJ_INT32* p = c.row(scaleRow(row, c.h, H));
        unsigned char* yl = y + size_t(row) * yBpl;
        if (c.w == W)
            for (int x = 0; x < W; ++x)
                yl[x] = static_cast<unsigned char>(c.at(p, x));
        else
            for (int x = 0; x < W; ++x)
                yl[x] = static_cast<unsigned char>(c.at(p, int(int64_t(x) * c.w / W)));
    }
}

// A chroma component of any subsampling to a 4:2:2 plane of (W+1)/2 x H.
void chromaPlane(const Component& c, int W, int H, unsigned char* out, int cBpl)
{
    const int cw = (W + 1) / 2;
    for (int row = 0; row < H; ++row) {
        const OPJ_INT32* p = c.row(scaleRow(row, c.h, H));
        unsigned char* line = out + size_t(row) * cBpl;
        if (c.w == W) {  // full width: mean of each pair
            for (int cx = 0; cx < cw; ++cx) {
                const int a = c.at(p, 2 * cx), b = c.at(p, std::min(2 * cx + 1, W - 1));
                line[cx] = static_cast<unsigned char>((a + b + 1) >> 1);
            }
        } else if (c.w == cw) {
            for (int cx = 0; cx < cw; ++cx)
                line[cx] = static_cast<unsigned char>(c.at(p, cx));
        } else {  // other subsamplings: nearest sample
            for (int cx = 0; cx < cw; ++cx)
                line[cx] = static_cast<unsigned char>(c.at(p, int(int64_t(cx) * c.w / cw)));
        }
    }
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

    Opened o;
    const int rc = openImage(handle, data, size, input, o);
    if (rc != AJ2K_OK) {
        closeImage(o);
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
        closeImage(o);
    }
    return AJ2K_OK;
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

    Opened o;
    const auto& k = handle->kept;
    if (k.codec && k.data == data && k.size == size && data && k.headerHash == headerHash(data, size)) {
        o.codec = k.codec;
        o.stream = k.stream;
        o.image = k.image;
        handle->kept = aj2k_handle::Kept();
    } else {
        dropKept(handle);
        const int rc = openImage(handle, data, size, input, o);
        if (rc != AJ2K_OK) {
            closeImage(o);
            return rc;
        }
    }
    // The error handler of a kept codec points at this handle too.
    struct Closer {
        Opened& o;
        ~Closer() { closeImage(o); }
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

    const opj_image_t* img = o.image;
    Component c[3];
    if (img->numcomps < 1 || !c[0].init(img->comps[0]))
        return fail(handle, AJ2K_ERR_DECODE, "no decoded picture");
    const bool colour = img->numcomps >= 3;
    if (colour && (!c[1].init(img->comps[1]) || !c[2].init(img->comps[2])))
        return fail(handle, AJ2K_ERR_DECODE, "incomplete colour components");
    const int W = c[0].w, H = c[0].h;
    const int yBpl = W + (W & 1);
    const int cBpl = yBpl / 2;
    if (!ensurePlane(y, ySize, int64_t(yBpl) * H) || !ensurePlane(u, uSize, int64_t(cBpl) * H) ||
        !ensurePlane(v, vSize, int64_t(cBpl) * H))
        return fail(handle, AJ2K_ERR_MEMORY, "cannot allocate the planes");

    const bool ycc = img->color_space == OPJ_CLRSPC_SYCC || img->color_space == OPJ_CLRSPC_EYCC;
    const bool subsampled = colour && (c[1].w != W || c[1].h != H || c[2].w != W || c[2].h != H);
    if (colour && !ycc && !subsampled) {
        rgbTo422(c[0], c[1], c[2], W, H, *y, yBpl, *u, *v, cBpl);
    } else if (colour) {
        lumaPlane(c[0], W, H, *y, yBpl);
        chromaPlane(c[1], W, H, *u, cBpl);
        chromaPlane(c[2], W, H, *v, cBpl);
    } else {
        lumaPlane(c[0], W, H, *y, yBpl);
        std::memset(*u, 128, size_t(cBpl) * H);
        std::memset(*v, 128, size_t(cBpl) * H);
    }
    *yBytesPerLine = yBpl;
    *uBytesPerLine = *vBytesPerLine = cBpl;
    *width = W;
    *height = H;
    return AJ2K_OK;
}

const char* aj2k_lasterror(const aj2k_handle* handle) { return handle ? handle->lastError.c_str() : ""; }

}  // extern "C"
