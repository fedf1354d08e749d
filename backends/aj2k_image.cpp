#include "backends/aj2k_image.h"

#include "backends/aj2k.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

namespace orvo::aj2k {
namespace {

// The stream's reads go to the caller's bytes.
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

int fail(std::string& error, int code, const std::string& text)
{
    if (error.empty())
        error = text;
    return code;
}

// OpenJPEG's first error message, without its line end, unless a reason is known already.
void onOpenJpegError(const char* msg, void* user)
{
    auto* error = static_cast<std::string*>(user);
    if (error->empty() && msg) {
        *error = msg;
        while (!error->empty() && (error->back() == '\n' || error->back() == ' '))
            error->pop_back();
    }
}

void quiet(const char*, void*) {}

bool isJp2(const unsigned char* d, int size)
{
    static const unsigned char signature[12] = {0, 0, 0, 0x0C, 'j', 'P', ' ', ' ', 0x0D, 0x0A, 0x87, 0x0A};
    return size >= 12 && std::memcmp(d, signature, 12) == 0;
}

bool isJ2k(const unsigned char* d, int size)
{
    return size >= 4 && d[0] == 0xFF && d[1] == 0x4F && d[2] == 0xFF && d[3] == 0x51;
}

}  // namespace

int openImage(const unsigned char* data, int size, int input, bool strict, int threads, std::string& error,
              OpenedImage& out)
{
    if (!data || size <= 0)
        return fail(error, AJ2K_ERR_ARGUMENT, "no data");
    OPJ_CODEC_FORMAT format;
    if (input == AJ2K_INPUT_J2K || (input == AJ2K_INPUT_AUTO && isJ2k(data, size)))
        format = OPJ_CODEC_J2K;
    else if (input == AJ2K_INPUT_JP2 || (input == AJ2K_INPUT_AUTO && isJp2(data, size)))
        format = OPJ_CODEC_JP2;
    else if (input == AJ2K_INPUT_AUTO)
        return fail(error, AJ2K_ERR_FORMAT, "neither a J2K code stream nor a JP2 file");
    else
        return fail(error, AJ2K_ERR_ARGUMENT, "unknown input kind");

    out.codec = opj_create_decompress(format);
    if (!out.codec)
        return fail(error, AJ2K_ERR_MEMORY, "cannot create the decoder");
    opj_set_error_handler(out.codec, onOpenJpegError, &error);
    opj_set_warning_handler(out.codec, quiet, nullptr);
    opj_set_info_handler(out.codec, quiet, nullptr);
    opj_dparameters_t params;
    opj_set_default_decoder_parameters(&params);
    if (!opj_setup_decoder(out.codec, &params))
        return fail(error, AJ2K_ERR_DECODE, "cannot set up the decoder");
    opj_decoder_set_strict_mode(out.codec, strict ? OPJ_TRUE : OPJ_FALSE);
    if (threads > 1)
        opj_codec_set_threads(out.codec, threads);  // single-threaded if OpenJPEG has no threads

    out.stream = memoryStream(data, size);
    if (!out.stream)
        return fail(error, AJ2K_ERR_MEMORY, "cannot create the input stream");
    if (!opj_read_header(out.stream, out.codec, &out.image) || !out.image)
        return fail(error, AJ2K_ERR_FORMAT, "cannot read the header");

    const opj_image_t* img = out.image;
    if (img->numcomps < 1 || !img->comps || img->x1 <= img->x0 || img->y1 <= img->y0)
        return fail(error, AJ2K_ERR_FORMAT, "image without components or area");
    const uint64_t w = img->x1 - img->x0, hgt = img->y1 - img->y0;
    if (w > 65535 || hgt > 65535 || w * hgt > uint64_t(AJ2K_MAX_PIXELS))
        return fail(error, AJ2K_ERR_SIZE, "image too large: " + std::to_string(w) + "x" + std::to_string(hgt));
    return AJ2K_OK;
}

void closeImage(OpenedImage& o)
{
    if (o.image)
        opj_image_destroy(o.image);
    if (o.stream)
        opj_stream_destroy(o.stream);
    if (o.codec)
        opj_destroy_codec(o.codec);
    o = OpenedImage();
}


}  // namespace orvo::aj2k
