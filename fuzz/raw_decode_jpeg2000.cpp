// Baseline for fuzz_decode_jpeg2000: OpenJPEG alone on each chunk (J2K code stream or JP2
// file, strict mode, one thread, the 1 Mpixel budget), at the scale level of option bits
// 0..1 limited to the stream's resolutions, without the conversion to 8-bit planes.
#include "fuzz/fuzz_input.h"

#include <openjpeg.h>

#include <algorithm>
#include <cstring>

namespace {

struct Source {
    const unsigned char* data;
    OPJ_SIZE_T size, pos;
};

OPJ_SIZE_T readMem(void* buffer, OPJ_SIZE_T n, void* user)
{
    auto* s = static_cast<Source*>(user);
    if (s->pos >= s->size)
        return OPJ_SIZE_T(-1);
    const OPJ_SIZE_T count = std::min(n, s->size - s->pos);
    std::memcpy(buffer, s->data + s->pos, count);
    s->pos += count;
    return count;
}

OPJ_OFF_T skipMem(OPJ_OFF_T n, void* user)
{
    auto* s = static_cast<Source*>(user);
    const OPJ_SIZE_T step = n < 0 ? std::min<OPJ_SIZE_T>(OPJ_SIZE_T(-n), s->pos)
                                  : std::min<OPJ_SIZE_T>(OPJ_SIZE_T(n), s->size - s->pos);
    s->pos = n < 0 ? s->pos - step : s->pos + step;
    return n < 0 ? -OPJ_OFF_T(step) : OPJ_OFF_T(step);
}

OPJ_BOOL seekMem(OPJ_OFF_T n, void* user)
{
    auto* s = static_cast<Source*>(user);
    if (n < 0 || OPJ_SIZE_T(n) > s->size)
        return OPJ_FALSE;
    s->pos = OPJ_SIZE_T(n);
    return OPJ_TRUE;
}

void quiet(const char*, void*) {}

void decode(const unsigned char* d, int size, int scaleLevel)
{
    static const unsigned char jp2[12] = {0, 0, 0, 0x0C, 'j', 'P', ' ', ' ', 0x0D, 0x0A, 0x87, 0x0A};
    OPJ_CODEC_FORMAT format;
    if (size >= 4 && d[0] == 0xFF && d[1] == 0x4F && d[2] == 0xFF && d[3] == 0x51)
        format = OPJ_CODEC_J2K;
    else if (size >= 12 && std::memcmp(d, jp2, 12) == 0)
        format = OPJ_CODEC_JP2;
    else
        return;
    opj_codec_t* codec = opj_create_decompress(format);
    opj_set_error_handler(codec, quiet, nullptr);
    opj_set_warning_handler(codec, quiet, nullptr);
    opj_set_info_handler(codec, quiet, nullptr);
    opj_dparameters_t params;
    opj_set_default_decoder_parameters(&params);
    opj_setup_decoder(codec, &params);
    opj_decoder_set_strict_mode(codec, OPJ_TRUE);
    Source source{d, OPJ_SIZE_T(size), 0};
    opj_stream_t* stream = opj_stream_create(OPJ_J2K_STREAM_CHUNK_SIZE, OPJ_TRUE);
    opj_stream_set_user_data(stream, &source, nullptr);
    opj_stream_set_user_data_length(stream, OPJ_UINT64(size));
    opj_stream_set_read_function(stream, readMem);
    opj_stream_set_skip_function(stream, skipMem);
    opj_stream_set_seek_function(stream, seekMem);
    opj_image_t* image = nullptr;
    if (opj_read_header(stream, codec, &image) && image && image->numcomps > 0 && image->x1 > image->x0 &&
        image->y1 > image->y0 && uint64_t(image->x1 - image->x0) * (image->y1 - image->y0) <= 1024 * 1024) {
        int level = scaleLevel;
        if (level > 0) {
            opj_codestream_info_v2_t* info = opj_get_cstr_info(codec);
            int maxLevel = 0;
            if (info && info->m_default_tile_info.tccp_info) {
                maxLevel = 32;
                for (OPJ_UINT32 c = 0; c < info->nbcomps; ++c)
                    maxLevel = std::min(maxLevel, int(info->m_default_tile_info.tccp_info[c].numresolutions) - 1);
            }
            opj_destroy_cstr_info(&info);
            level = std::min(level, std::max(maxLevel, 0));
        }
        if (opj_set_decoded_resolution_factor(codec, OPJ_UINT32(level)))
            opj_decode(codec, stream, image) && opj_end_decompress(codec, stream);
    }
    opj_image_destroy(image);
    opj_stream_destroy(stream);
    opj_destroy_codec(codec);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    for (const QByteArray& chunk : in.chunks)
        decode(reinterpret_cast<const unsigned char*>(chunk.constData()), chunk.size(), in.options & 3);
    return 0;
}
