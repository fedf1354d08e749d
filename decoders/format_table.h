#pragma once
// The one table of formats: what the library knows of each image format code, one row per
// format. Everything that asks about a format (which codes are known, which decoder a code
// gets, which FFmpeg codec serves it, what a decoder reports as its format) reads a row here;
// adding a format is one row (and, for a new kind of decoder, one decoder file pair).
//
// The table is constant and process-wide; every function may be called from any thread.
#include "orvo/decoder_preferences.h"
#include "orvo/ffmpeg_module.h"

extern "C" {
#include <libavcodec/codec_id.h>
}

#include <string_view>

namespace orvo::formats {

// The decoder classes the dispatcher builds.
enum class Kind {
    Null,      // DecoderNULL: decodes nothing
    AV,        // DecoderAV over the row's FFmpeg input
    MPEG4,     // DecoderMPEG4
    H264,      // DecoderH264: the camera repairs before FFmpeg
    JPEG,      // DecoderJPEG: Qt's image reader
    MXPEG,     // DecoderMXPEG: the MxPEG library
    JPEG2000,  // DecoderJPEG2000: the aj2k library
    Wavelet,   // DecoderWavelet for the row's field
    YUV,       // DecoderYUV
};

// Wavelet fields are this wide; their rows give the lines.
constexpr int kFieldWidth = 720;

// Access-unit assembly before FFmpeg (see AccessUnitSplitter).
enum class Parser { None, H264, Hevc };

// Whether FFmpeg may decode the format on the GPU's video engine, and how close its pictures
// come to software ones. H.264 and H.265 define their inverse transforms to the bit: the
// engine's pictures equal FFmpeg's. The DCT formats leave the inverse DCT to the decoder
// within a tolerance: the engine's is its own, and its pictures differ from FFmpeg's a little.
enum class Engine { None, Exact, Approximate };

struct Format {
    // The type bytes that select the row, the byte 0 included where listed. Codes that differ
    // only in case share a row, except 'M' (MPEG-2) and 'm' (MPEG-4).
    std::string_view codes;
    // What the row's own decoders report as their format (getFormat).
    unsigned char code;
    // What DecoderAV reports for the row's FFmpeg input (MxPEG deliberately answers 'X').
    unsigned char ffmpegCode;
    const char* name;
    Kind kind;  // the decoder built for the codes
    // The preference that, when on as the decoder is created, builds `preferredKind` instead.
    bool (DecoderPreferences::*preference)();
    Kind preferredKind;
    FormatIn input;    // FFmpeg input of DecoderAV; 0 when FFmpeg has no decoder for the row
    AVCodecID codecId;  // FFmpeg's codec for the format (also where the row's decoder is another)
    Parser parser;
    bool byteStream;  // payloads are start-code byte streams (a payload without one is refused)
    Engine engine;    // the GPU's video engine (hardware decoding preference)
    int fieldLines;   // wavelet fields: lines of the field (kFieldWidth wide); 0 otherwise
    // Whether FFmpeg decodes the format at reduced resolution is no column: maxLowres() asks
    // the linked FFmpeg.
};

// Every row, for walking the table.
struct Rows {
    const Format* first;
    const Format* last;
    const Format* begin() const { return first; }
    const Format* end() const { return last; }
};
Rows all();
// The row whose codes hold `code`; null for an unknown code.
const Format* find(unsigned char code);
// The row of a DecoderAV input; null for a value that names no codec.
const Format* forInput(FormatIn input);
// The row served by FFmpeg's `codec`; null when none is. A codec that serves several rows
// (the wavelet fields) gives the row of `height` lines, the taller field for any other
// height, and null when no height is given (-1).
const Format* forCodec(AVCodecID codec, int height = -1);
// The first row whose decoder (by default or by preference) is `kind`.
const Format& forKind(Kind kind);
// The wavelet row of fields with `lines` lines (the taller field for any other count).
const Format& field(int lines);
// The decoder kind the dispatcher builds for `row` under the preferences as they are now.
Kind decoderKind(const Format& row);
// Largest reduction the linked FFmpeg decoder of `row` can decode at (FFmpeg's lowres):
// 0 when it cannot, or when FFmpeg has no decoder for the row.
int maxLowres(const Format& row);

}  // namespace orvo::formats
