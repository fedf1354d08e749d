// AVEncoder: which containers exist, which encoders they take, codec names.
#include "orvo/av_encoder.h"
#include "orvo/log.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <vector>

namespace orvo {

namespace {
// The entries of a container's codec tag tables. libavformat keeps the struct private
// but its layout (codec id, tag) has not changed since it was introduced.
struct CodecTagEntry {
    AVCodecID id;
    unsigned int tag;
};

// Codec families by identifier (the identifiers themselves are those of the linked
// release; the family bounds are fixed).
constexpr int kFirstPcm = 0x10000;
constexpr int kLastPcm = 0x10FFF;
constexpr int kFirstAdpcm = 0x11000;
constexpr int kLastAdpcm = 0x11FFF;
constexpr int kFirstAudio = 0x15000;
constexpr int kLastAudio = 0x16FFF;

const AVCodec* encoderFor(AVCodecID id)
{
    return id == AV_CODEC_ID_NONE ? nullptr : avcodec_find_encoder(id);
}

const char* nameFor(AVCodecID id)
{
    if (id == AV_CODEC_ID_NONE)
        return "NO CODEC";
    if (id == AV_CODEC_ID_PROBE)
        return "AUTO";
    const AVCodec* codec = encoderFor(id);
    return codec ? codec->name : "UNKNOWN";
}

template <typename Visit>
void forEachTag(const AVOutputFormat* format, Visit visit)
{
    if (!format->codec_tag)
        return;
    for (int t = 0; format->codec_tag[t]; ++t) {
        const auto* entry = reinterpret_cast<const CodecTagEntry*>(format->codec_tag[t]);
        for (; entry->id != AV_CODEC_ID_NONE; ++entry)
            visit(t, *entry);
    }
}

// The lists of get_codecs, filled from the tag tables in table order.
void collect(const AVOutputFormat* format, std::list<AVCodecID>& video, std::list<AVCodecID>& audio,
             std::list<AVCodecID>& pcm, AVSampleFormat sampleFormat)
{
    forEachTag(format, [&](int, const CodecTagEntry& entry) {
        const AVCodec* codec = encoderFor(entry.id);
        if (!codec)
            return;
        const int id = entry.id;
        if (id < kFirstPcm) {
            video.push_back(entry.id);
        } else if (id <= kLastPcm) {
            pcm.push_back(entry.id);
        } else if (id >= kFirstAudio && id <= kLastAudio) {
            if (codec->capabilities & AV_CODEC_CAP_EXPERIMENTAL)
                return;
            if (sampleFormat != AV_SAMPLE_FMT_NONE) {
                bool listed = false;
                for (const AVSampleFormat* f = codec->sample_fmts; f && *f != AV_SAMPLE_FMT_NONE; ++f)
                    listed = listed || *f == sampleFormat;
                if (!listed)
                    return;
            }
            audio.push_back(entry.id);
        }
    });
}

const AVOutputFormat* guessPrinting(const char* filename, const char* formatName)
{
    const char* fn = filename ? filename : "";
    const char* fsn = formatName ? formatName : "";
    oprint(LogStream::StandardOutput, "fsn=%s fn=%s\n", fsn, fn);
    const AVOutputFormat* format = av_guess_format(*fsn ? fsn : nullptr, fn, nullptr);
    if (!format)
        oprint(LogStream::StandardOutput,
               "get_codecs:Could not deduce output format from file extension %s and format name %s \n", fn,
               fsn);
    return format;
}

std::list<int> toInts(const std::list<AVCodecID>& ids)
{
    return std::list<int>(ids.begin(), ids.end());
}

void sortUnique(std::list<AVCodecID>& ids)
{
    ids.sort();
    ids.unique();
}

void printTag(const char* name, int id, unsigned int tag)
{
    oprint(LogStream::StandardOutput, "%s 0x%x,", name, id);
    for (int i = 0; i < 4; ++i) {
        const int c = (tag >> (8 * i)) & 0xFF;
        std::putchar(std::isalnum(c) && c < 128 ? c : '?');
    }
    oprint(LogStream::StandardOutput,
           "(0x%02x 0x%02x 0x%02x 0x%02x)", tag & 0xFF, (tag >> 8) & 0xFF, (tag >> 16) & 0xFF,
           (tag >> 24) & 0xFF);
}

void printNames(const char* title, const std::list<AVCodecID>& ids)
{
    oprint(LogStream::StandardOutput, "%s", title);
    for (AVCodecID id : ids)
        oprint(LogStream::StandardOutput, " %s", nameFor(id));
    oprint(LogStream::StandardOutput, "\n");
}
}  // namespace

const char* AVEncoder::CodecID2cstring(AVCodecID id)
{
    return nameFor(id);
}

AVCodecID AVEncoder::cstring2CodecID(const char* name)
{
    if (!name)
        return AV_CODEC_ID_NONE;
    if (!std::strcmp(name, "NONE") || !std::strcmp(name, "NO CODEC") || !std::strcmp(name, "none"))
        return AV_CODEC_ID_NONE;
    if (!std::strcmp(name, "AUTO") || !std::strcmp(name, "auto"))
        return AV_CODEC_ID_PROBE;
    // The name must be that of the encoder FFmpeg picks for the identifier; families are
    // searched audio, video, PCM, ADPCM, each in ascending order.
    auto rank = [](int id) {
        if (id >= kFirstAudio && id <= kLastAudio)
            return 0;
        if (id >= 1 && id < kFirstPcm)
            return 1;
        if (id >= kFirstPcm && id <= kLastPcm)
            return 2;
        if (id >= kFirstAdpcm && id <= kLastAdpcm)
            return 3;
        return 4;
    };
    AVCodecID best = AV_CODEC_ID_NONE;
    void* it = nullptr;
    while (const AVCodec* codec = av_codec_iterate(&it)) {
        if (!av_codec_is_encoder(codec) || std::strcmp(codec->name, name) != 0 || rank(codec->id) > 3)
            continue;
        if (avcodec_find_encoder(codec->id) != codec)
            continue;
        if (best == AV_CODEC_ID_NONE || rank(codec->id) < rank(best) ||
            (rank(codec->id) == rank(best) && codec->id < best))
            best = codec->id;
    }
    return best;
}

bool AVEncoder::get_name_for_codec(AVCodecID id, std::string& name)
{
    const AVCodec* codec = encoderFor(id);
    if (!codec)
        return false;
    name = codec->name;
    return true;
}

void AVEncoder::get_names_for_codecs(std::list<AVCodecID>& ids, std::list<std::string>& names)
{
    for (AVCodecID id : ids)
        if (const AVCodec* codec = encoderFor(id))
            names.push_back(codec->name);
}

void AVEncoder::get_names_for_codecs(const std::list<int>& ids, std::list<std::string>& names)
{
    for (int id : ids)
        if (const AVCodec* codec = encoderFor(static_cast<AVCodecID>(id)))
            names.push_back(codec->name);
}

bool AVEncoder::get_codecs(const AVOutputFormat* format, AVCodecID& defaultVideo, AVCodecID& defaultAudio,
                           std::list<AVCodecID>& video, std::list<AVCodecID>& audio, std::list<AVCodecID>& pcm,
                           AVSampleFormat sampleFormat)
{
    if (!format)
        return false;
    defaultVideo = format->video_codec;
    defaultAudio = format->audio_codec;
    collect(format, video, audio, pcm, sampleFormat);
    return true;
}

bool AVEncoder::get_codecs(const AVOutputFormat* format, int& defaultVideo, int& defaultAudio, std::list<int>& video,
                           std::list<int>& audio, std::list<int>& pcm, int sampleFormat)
{
    if (!format)
        return false;
    std::list<AVCodecID> v, a, p;
    AVCodecID dv, da;
    get_codecs(format, dv, da, v, a, p, static_cast<AVSampleFormat>(sampleFormat));
    defaultVideo = dv;
    defaultAudio = da;
    video.splice(video.end(), toInts(v));
    audio.splice(audio.end(), toInts(a));
    pcm.splice(pcm.end(), toInts(p));
    return true;
}

bool AVEncoder::get_codecs(const char* filename, const char* formatName, AVCodecID& defaultVideo,
                           AVCodecID& defaultAudio, std::list<AVCodecID>& video, std::list<AVCodecID>& audio,
                           std::list<AVCodecID>& pcm, AVSampleFormat sampleFormat)
{
    const AVOutputFormat* format = guessPrinting(filename, formatName);
    return format && get_codecs(format, defaultVideo, defaultAudio, video, audio, pcm, sampleFormat);
}

bool AVEncoder::get_codecs(const char* filename, const char* formatName, int& defaultVideo, int& defaultAudio,
                           std::list<int>& video, std::list<int>& audio, std::list<int>& pcm, int sampleFormat)
{
    const AVOutputFormat* format = guessPrinting(filename, formatName);
    return format && get_codecs(format, defaultVideo, defaultAudio, video, audio, pcm, sampleFormat);
}

bool AVEncoder::is_video_codec_compatible_with_format(const char* extension, AVCodecID id)
{
    char filename[256];
    std::snprintf(filename, sizeof(filename), "test.%s", extension ? extension : "");
    AVCodecID defaultVideo, defaultAudio;
    std::list<AVCodecID> video, audio, pcm;
    if (!get_codecs(filename, "", defaultVideo, defaultAudio, video, audio, pcm, AV_SAMPLE_FMT_NONE))
        return false;
    sortUnique(video);
    return std::find(video.begin(), video.end(), id) != video.end();
}

void AVEncoder::display_codecs_for_format(const AVOutputFormat* format, bool showMissing, bool verbose)
{
    if (!format)
        return;
    if (verbose)
        oprint(LogStream::StandardOutput, "\n__________________________________________________________\n");
    auto text = [](const char* s) { return s ? s : ""; };
    oprint(LogStream::StandardOutput,
           "%s|%s|%s|%s\n", text(format->name), text(format->long_name), text(format->mime_type),
           text(format->extensions));
    oprint(LogStream::StandardOutput,
           "%d(%s)|%d(%s)|\n", static_cast<int>(format->video_codec), nameFor(format->video_codec),
           static_cast<int>(format->audio_codec), nameFor(format->audio_codec));
    if (!verbose)
        return;
    oprint(LogStream::StandardOutput, "FourCC tags:\n");
    int currentTable = -1;
    forEachTag(format, [&](int table, const CodecTagEntry& entry) {
        if (currentTable != -1 && table != currentTable)
            oprint(LogStream::StandardOutput, "\n");
        currentTable = table;
        if (const AVCodec* codec = encoderFor(entry.id)) {
            oprint(LogStream::StandardOutput, "[");
            printTag(codec->name, entry.id, entry.tag);
            oprint(LogStream::StandardOutput, "],");
        } else if (showMissing) {
            char id[32];
            std::snprintf(id, sizeof(id), "%d", static_cast<int>(entry.id));
            oprint(LogStream::StandardOutput, "(Missing[");
            printTag(id, entry.id, entry.tag);
            oprint(LogStream::StandardOutput, "]),");
        }
    });
    if (currentTable != -1)
        oprint(LogStream::StandardOutput, "\n");
    std::list<AVCodecID> video, audio, pcm;
    collect(format, video, audio, pcm, AV_SAMPLE_FMT_NONE);
    sortUnique(video);
    sortUnique(audio);
    sortUnique(pcm);
    printNames("Video codecs :", video);
    printNames("Audio codecs :", audio);
    printNames("PCM codecs   :", pcm);
}

bool AVEncoder::display_codecs_for_format(const char* filename, const char* formatName, bool verbose)
{
    const char* fn = filename ? filename : "";
    const char* fsn = formatName && *formatName ? formatName : nullptr;
    const AVOutputFormat* format = av_guess_format(fsn, fn, nullptr);
    if (!format) {
        oprint(LogStream::StandardOutput, "Could not deduce output format from file extension: using MPEG.\n");
        format = av_guess_format("mpeg", nullptr, nullptr);
    }
    if (!format) {
        oprint(LogStream::StandardError, "Could not find suitable output format\n");
        return false;
    }
    display_codecs_for_format(format, false, verbose);
    return true;
}

void AVEncoder::list_all_formats(bool verbose)
{
    oprint(LogStream::StandardOutput, "\n\n\n\nCodecs:\n\n");
    void* it = nullptr;
    while (const AVOutputFormat* format = av_muxer_iterate(&it))
        display_codecs_for_format(format, false, verbose);
}

void AVEncoder::disp_codec_names(std::list<std::string>& /*names*/) {}

}  // namespace orvo
