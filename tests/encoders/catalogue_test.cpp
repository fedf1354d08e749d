// Codec names and identifiers, the codecs a container takes, and the listings clients print.
#include "encoders/encoder_test_support.h"
#include "orvo/av_encoder.h"

#include <gtest/gtest.h>

#include <algorithm>

extern "C" {
#include <libavcodec/avcodec.h>
}

using namespace orvo;
using namespace orvo::test;

namespace {

template <typename List, typename Id>
bool has(const List& l, Id id)
{
    return std::find(l.begin(), l.end(), id) != l.end();
}

TEST(Catalogue, NamesAndIdentifiers)
{
    // The special names are what clients store in their settings.
    const std::pair<const char*, AVCodecID> names[] = {
        {"NONE", AV_CODEC_ID_NONE},   {"NO CODEC", AV_CODEC_ID_NONE}, {"none", AV_CODEC_ID_NONE},
        {"AUTO", AV_CODEC_ID_PROBE},  {"auto", AV_CODEC_ID_PROBE},    {"Auto", AV_CODEC_ID_NONE},
        {"mpeg4", AV_CODEC_ID_MPEG4}, {"aac", AV_CODEC_ID_AAC},       {"adpcm_ima_wav", AV_CODEC_ID_ADPCM_IMA_WAV},
        {"libx265", AV_CODEC_ID_HEVC}, {"no-such-codec", AV_CODEC_ID_NONE},
    };
    for (const auto& [name, id] : names)
        EXPECT_EQ(AVEncoder::cstring2CodecID(name), id) << name;
    EXPECT_STREQ(AVEncoder::CodecID2cstring(AV_CODEC_ID_NONE), "NO CODEC");
    EXPECT_STREQ(AVEncoder::CodecID2cstring(AV_CODEC_ID_PROBE), "AUTO");
    EXPECT_STREQ(AVEncoder::CodecID2cstring(AV_CODEC_ID_VP6), "UNKNOWN");
    for (AVCodecID id : {AV_CODEC_ID_MJPEG, AV_CODEC_ID_MPEG2VIDEO, AV_CODEC_ID_H264, AV_CODEC_ID_AC3, AV_CODEC_ID_MP2})
        EXPECT_EQ(AVEncoder::cstring2CodecID(AVEncoder::CodecID2cstring(id)), id);

    std::string name;
    EXPECT_FALSE(AVEncoder::get_name_for_codec(AV_CODEC_ID_VP6, name));
    std::list<AVCodecID> ids{AV_CODEC_ID_MPEG4, AV_CODEC_ID_VP6, AV_CODEC_ID_MP2};
    std::list<int> mp2{AV_CODEC_ID_MP2};
    std::list<std::string> listed;
    AVEncoder::get_names_for_codecs(ids, listed);
    EXPECT_EQ(listed, (std::list<std::string>{"mpeg4", "mp2"}));
    listed.clear();
    AVEncoder::get_names_for_codecs(mp2, listed);
    EXPECT_EQ(listed, std::list<std::string>{"mp2"});
}

TEST(Catalogue, CodecsOfAContainer)
{
    AVCodecID dv = AV_CODEC_ID_VP6, da = AV_CODEC_ID_VP6;
    std::list<AVCodecID> video, audio, pcm;
    EXPECT_FALSE(AVEncoder::get_codecs(static_cast<const AVOutputFormat*>(nullptr), dv, da, video, audio, pcm,
                                       AV_SAMPLE_FMT_NONE));
    EXPECT_EQ(dv, AV_CODEC_ID_VP6);
    const AVOutputFormat* avi = av_guess_format("avi", nullptr, nullptr);
    ASSERT_TRUE(AVEncoder::get_codecs(avi, dv, da, video, audio, pcm, AV_SAMPLE_FMT_NONE));
    EXPECT_EQ(dv, avi->video_codec);
    EXPECT_EQ(da, avi->audio_codec);
    EXPECT_TRUE(has(video, AV_CODEC_ID_MPEG4) && has(video, AV_CODEC_ID_MJPEG));
    EXPECT_FALSE(has(video, AV_CODEC_ID_VP6));  // no encoder
    EXPECT_TRUE(has(audio, AV_CODEC_ID_MP2));
    EXPECT_TRUE(has(pcm, AV_CODEC_ID_PCM_S16LE));
    EXPECT_FALSE(has(audio, AV_CODEC_ID_ADPCM_IMA_WAV));  // ADPCM is never listed

    // Sample-format filter: MP2 takes S16, AAC only planar float.
    std::list<int> v2, a2, p2;
    int idv = 0, ida = 0;
    CaptureFd out(1);
    ASSERT_TRUE(AVEncoder::get_codecs("x.mp4", "", idv, ida, v2, a2, p2, AV_SAMPLE_FMT_S16));
    EXPECT_FALSE(has(a2, int(AV_CODEC_ID_AAC)));
    EXPECT_TRUE(has(a2, int(AV_CODEC_ID_MP2)));
    a2.clear();
    ASSERT_TRUE(AVEncoder::get_codecs("x.mp4", nullptr, idv, ida, v2, a2, p2, AV_SAMPLE_FMT_FLTP));
    EXPECT_TRUE(has(a2, int(AV_CODEC_ID_AAC)));
    EXPECT_FALSE(AVEncoder::get_codecs("x.nosuchext", "", idv, ida, v2, a2, p2, -1));

    EXPECT_TRUE(AVEncoder::is_video_codec_compatible_with_format("mp4", AV_CODEC_ID_H264));
    EXPECT_TRUE(AVEncoder::is_video_codec_compatible_with_format("avi", AV_CODEC_ID_MPEG4));
    EXPECT_FALSE(AVEncoder::is_video_codec_compatible_with_format("mp4", AV_CODEC_ID_VP6));
    EXPECT_FALSE(AVEncoder::is_video_codec_compatible_with_format("nosuchext", AV_CODEC_ID_H264));
}

TEST(Catalogue, Listings)
{
    CaptureFd out(1);
    ASSERT_TRUE(AVEncoder::display_codecs_for_format("x.avi", "", true));
    AVEncoder::list_all_formats(false);
    ASSERT_TRUE(AVEncoder::display_codecs_for_format("x.nosuchext", nullptr, false));
    std::list<std::string> names{"a"};
    AVEncoder::disp_codec_names(names);
    const std::string text = out.text();
    // The MPEG-4 entry with its FourCC tag, and the MPEG fallback for an unknown extension.
    EXPECT_NE(text.find("FMP4(0x46 0x4d 0x50 0x34)"), std::string::npos);
    EXPECT_NE(text.find("\nmatroska|"), std::string::npos);
    EXPECT_NE(text.find("using MPEG.\nmpeg|"), std::string::npos);
}

}  // namespace
