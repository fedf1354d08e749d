#include "decoders/format_table.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <iterator>

namespace orvo::formats {
namespace {

using namespace std::string_view_literals;
using P = DecoderPreferences;

constexpr FormatIn kNoInput = FormatIn(0);

// clang-format off
const Format kFormats[] = {
//  codes    code ffmpeg  name                       kind            preference                       preferred       FFmpeg input       FFmpeg codec            parser        bytes  engine                lines
    {"hH"sv,  'h', 'h',  "H.264",                   Kind::AV,       &P::isLookForNALsH264,           Kind::H264,     FormatIn_H264,     AV_CODEC_ID_H264,       Parser::H264, true,  Engine::Exact,        0},
    {"eE"sv,  'e', 'e',  "H.265",                   Kind::AV,       nullptr,                         Kind::AV,       FormatIn_HEVC,     AV_CODEC_ID_HEVC,       Parser::Hevc, true,  Engine::Exact,        0},
    {"jJ"sv,  'j', 'j',  "Motion JPEG",             Kind::AV,       &P::isDecodeMJPEGThroughQImage,  Kind::JPEG,     FormatIn_MJPEG,    AV_CODEC_ID_MJPEG,      Parser::None, false, Engine::Approximate,  0},
    {"M"sv,   'M', 'M',  "MPEG-2",                  Kind::AV,       nullptr,                         Kind::AV,       FormatIn_MPEG2,    AV_CODEC_ID_MPEG2VIDEO, Parser::None, true,  Engine::Approximate,  0},
    {"m"sv,   'm', 'm',  "MPEG-4",                  Kind::MPEG4,    nullptr,                         Kind::MPEG4,    FormatIn_MPEG4,    AV_CODEC_ID_MPEG4,      Parser::None, true,  Engine::Approximate,  0},
    {"xX"sv,  'x', 'X',  "MxPEG",                   Kind::AV,       &P::isUsedMxPEGNative,           Kind::MXPEG,    FormatIn_MXPEG,    AV_CODEC_ID_MXPEG,      Parser::None, false, Engine::None,         0},
    {"r"sv,   'r', 'r',  "JPEG 2000",               Kind::JPEG2000, nullptr,                         Kind::JPEG2000, FormatIn_JPEG2000, AV_CODEC_ID_JPEG2000,   Parser::None, false, Engine::None,         0},
    {"nN"sv,  'n', 0,    "wavelet field 720 x 243", Kind::Wavelet,  nullptr,                         Kind::Wavelet,  kNoInput,          AV_CODEC_ID_DIRAC,      Parser::None, false, Engine::None,         243},
    {"pP"sv,  'p', 0,    "wavelet field 720 x 288", Kind::Wavelet,  nullptr,                         Kind::Wavelet,  kNoInput,          AV_CODEC_ID_DIRAC,      Parser::None, false, Engine::None,         288},
    {"y"sv,   'y', 0,    "raw YUV 4:2:0",           Kind::YUV,      nullptr,                         Kind::YUV,      kNoInput,          AV_CODEC_ID_NONE,       Parser::None, false, Engine::None,         0},
    // The byte 0 counts as a known code: images without a format get the null decoder.
    {"Y\0"sv, 0,   0,    "no format",               Kind::Null,     nullptr,                         Kind::Null,     kNoInput,          AV_CODEC_ID_NONE,       Parser::None, false, Engine::None,         0},
};
// clang-format on

const Format& tallestField()
{
    const Format* tallest = nullptr;
    for (const Format& f : kFormats)
        if (f.fieldLines > 0 && (!tallest || f.fieldLines > tallest->fieldLines))
            tallest = &f;
    return *tallest;
}

}  // namespace

Rows all() { return {std::begin(kFormats), std::end(kFormats)}; }

const Format* find(unsigned char code)
{
    for (const Format& f : kFormats)
        if (f.codes.find(char(code)) != std::string_view::npos)
            return &f;
    return nullptr;
}

const Format* forInput(FormatIn input)
{
    if (input == kNoInput)
        return nullptr;
    for (const Format& f : kFormats)
        if (f.input == input)
            return &f;
    return nullptr;
}

const Format* forCodec(AVCodecID codec, int height)
{
    if (codec == AV_CODEC_ID_NONE)
        return nullptr;
    const Format* any = nullptr;
    for (const Format& f : kFormats) {
        if (f.codecId != codec)
            continue;
        if (f.fieldLines == 0)
            return &f;
        any = &f;
    }
    if (!any || height < 0)
        return nullptr;
    return &field(height);
}

const Format& forKind(Kind kind)
{
    for (const Format& f : kFormats)
        if (f.kind == kind || (f.preference && f.preferredKind == kind))
            return f;
    return kFormats[std::size(kFormats) - 1];
}

const Format& field(int lines)
{
    for (const Format& f : kFormats)
        if (f.fieldLines > 0 && f.fieldLines == lines)
            return f;
    return tallestField();
}

Kind decoderKind(const Format& row)
{
    if (row.preference && (DecoderPreferences::instance()->*row.preference)())
        return row.preferredKind;
    return row.kind;
}

int maxLowres(const Format& row)
{
    const AVCodec* codec = row.codecId == AV_CODEC_ID_NONE ? nullptr : avcodec_find_decoder(row.codecId);
    return codec ? codec->max_lowres : 0;
}

}  // namespace orvo::formats
