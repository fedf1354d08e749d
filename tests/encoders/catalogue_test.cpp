// Codec names and identifiers, the codecs a container takes, the listings.
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

TEST(Catalogue, NamesAndIdentifiers)
{
    EXPECT_STREQ(AVEncoder::CodecID2cstring(AV_CODEC_ID_NONE), "NO CODEC");
    EXPECT_STREQ(AVEncoder::CodecID2cstring(AV_CODEC_ID_PROBE), "AUTO");
    EXPECT_STREQ(AVEncoder::CodecID2cstring(AV_CODEC_ID_VP6), "UNKNOWN");
    EXPECT_STREQ(AVEncoder::CodecID2cstring(AV_CODEC_ID_H264), avcodec_find_encoder(AV_CODEC_ID_H264)->name);
    EXPECT_STREQ(AVEncoder::CodecID2cstring(AV_CODEC_ID_MP2), "mp2");

    EXPECT_EQ(AVEncoder::cstring2CodecID("NONE"), AV_CODEC_ID_NONE);
    EXPECT_EQ(AVEncoder::cstring2CodecID("NO CODEC"), AV_CODEC_ID_NONE);
    EXPECT_EQ(AVEncoder::cstring2CodecID("none"), AV_CODEC_ID_NONE);
    EXPECT_EQ(AVEncoder::cstring2CodecID("AUTO"), AV_CODEC_ID_PROBE);
    EXPECT_EQ(AVEncoder::cstring2CodecID("auto"), AV_CODEC_ID_PROBE);
    EXPECT_EQ(AVEncoder::cstring2CodecID("Auto"), AV_CODEC_ID_NONE);
    EXPECT_EQ(AVEncoder::cstring2CodecID("mpeg4"), AV_CODEC_ID_MPEG4);
    EXPECT_EQ(AVEncoder::cstring2CodecID("mp2"), AV_CODEC_ID_MP2);
    EXPECT_EQ(AVEncoder::cstring2CodecID("aac"), AV_CODEC_ID_AAC);
    EXPECT_EQ(AVEncoder::cstring2CodecID("pcm_s16le"), AV_CODEC_ID_PCM_S16LE);
    EXPECT_EQ(AVEncoder::cstring2CodecID("adpcm_ima_wav"), AV_CODEC_ID_ADPCM_IMA_WAV);
    EXPECT_EQ(AVEncoder::cstring2CodecID("libx265"), AV_CODEC_ID_HEVC);
    EXPECT_EQ(AVEncoder::cstring2CodecID("no-such-codec"), AV_CODEC_ID_NONE);
    // Each name round-trips through its identifier.
    for (AVCodecID id : {AV_CODEC_ID_MJPEG, AV_CODEC_ID_MPEG2VIDEO, AV_CODEC_ID_H264, AV_CODEC_ID_AC3})
        EXPECT_EQ(AVEncoder::cstring2CodecID(AVEncoder::CodecID2cstring(id)), id);

    std::string name;
    EXPECT_FALSE(AVEncoder::get_name_for_codec(AV_CODEC_ID_VP6, name));
    EXPECT_TRUE(AVEncoder::get_name_for_codec(AV_CODEC_ID_MPEG4, name));
    EXPECT_EQ(name, "mpeg4");
    std::list<AVCodecID> ids{AV_CODEC_ID_MPEG4, AV_CODEC_ID_VP6, AV_CODEC_ID_MP2};
    std::list<std::string> names;
    AVEncoder::get_names_for_codecs(ids, names);
    EXPECT_EQ(names, (std::list<std::string>{"mpeg4", "mp2"}));
    names.clear();
    AVEncoder::get_names_for_codecs(std::list<int>{AV_CODEC_ID_MP2}, names);
    EXPECT_EQ(names, std::list<std::string>{"mp2"});
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
    auto has = [](const std::list<AVCodecID>& l, AVCodecID id) { return std::find(l.begin(), l.end(), id) != l.end(); };
    EXPECT_TRUE(has(video, AV_CODEC_ID_MPEG4));
    EXPECT_TRUE(has(video, AV_CODEC_ID_MJPEG));
    EXPECT_FALSE(has(video, AV_CODEC_ID_VP6));  // no encoder
    EXPECT_TRUE(has(audio, AV_CODEC_ID_MP2));
    EXPECT_TRUE(has(pcm, AV_CODEC_ID_PCM_S16LE));
    EXPECT_FALSE(has(audio, AV_CODEC_ID_ADPCM_IMA_WAV));  // ADPCM is never listed
    for (AVCodecID id : video)
        EXPECT_LT(int(id), 0x10000);

    // Sample-format filter: MP2 takes S16, AAC only planar float.
    std::list<int> v2, a2, p2;
    int idv = 0, ida = 0;
    CaptureFd out(1);
    ASSERT_TRUE(AVEncoder::get_codecs("x.mp4", "", idv, ida, v2, a2, p2, AV_SAMPLE_FMT_S16));
    EXPECT_EQ(out.text(), "fsn= fn=x.mp4\n");
    EXPECT_EQ(std::find(a2.begin(), a2.end(), int(AV_CODEC_ID_AAC)), a2.end());
    EXPECT_NE(std::find(a2.begin(), a2.end(), int(AV_CODEC_ID_MP2)), a2.end());
    a2.clear();
    ASSERT_TRUE(AVEncoder::get_codecs("x.mp4", nullptr, idv, ida, v2, a2, p2, AV_SAMPLE_FMT_FLTP));
    EXPECT_NE(std::find(a2.begin(), a2.end(), int(AV_CODEC_ID_AAC)), a2.end());

    CaptureFd out2(1);
    EXPECT_FALSE(AVEncoder::get_codecs("x.nosuchext", "", idv, ida, v2, a2, p2, -1));
    EXPECT_EQ(out2.text(), "fsn= fn=x.nosuchext\n"
                           "get_codecs:Could not deduce output format from file extension x.nosuchext and format "
                           "name  \n");
}

TEST(Catalogue, VideoCodecCompatibility)
{
    CaptureFd out(1);
    EXPECT_TRUE(AVEncoder::is_video_codec_compatible_with_format("mp4", AV_CODEC_ID_H264));
    EXPECT_TRUE(AVEncoder::is_video_codec_compatible_with_format("avi", AV_CODEC_ID_MPEG4));
    EXPECT_FALSE(AVEncoder::is_video_codec_compatible_with_format("mp4", AV_CODEC_ID_VP6));
    EXPECT_FALSE(AVEncoder::is_video_codec_compatible_with_format("nosuchext", AV_CODEC_ID_H264));
    const std::string text = out.text();
    EXPECT_NE(text.find("fsn= fn=test.mp4\n"), std::string::npos);
    EXPECT_NE(text.find("get_codecs:Could not deduce output format from file extension test.nosuchext"),
              std::string::npos);
}

TEST(Catalogue, Listings)
{
    CaptureFd out(1);
    ASSERT_TRUE(AVEncoder::display_codecs_for_format("x.avi", "", true));
    AVEncoder::list_all_formats(false);
    ASSERT_TRUE(AVEncoder::display_codecs_for_format("x.nosuchext", nullptr, false));
    const std::string text = out.text();
    const AVOutputFormat* avi = av_guess_format("avi", nullptr, nullptr);
    const std::string head = "\n__________________________________________________________\navi|" +
                             std::string(avi->long_name) + "|" + (avi->mime_type ? avi->mime_type : "") + "|avi\n" +
                             std::to_string(int(avi->video_codec)) + "(" +
                             AVEncoder::CodecID2cstring(avi->video_codec) + ")|" +
                             std::to_string(int(avi->audio_codec)) + "(" +
                             AVEncoder::CodecID2cstring(avi->audio_codec) + ")|\nFourCC tags:\n";
    EXPECT_EQ(text.substr(0, head.size()), head);
    EXPECT_NE(text.find("[mpeg4 0x" + [] {
                  char b[16];
                  std::snprintf(b, sizeof b, "%x", int(AV_CODEC_ID_MPEG4));
                  return std::string(b);
              }() + ",FMP4(0x46 0x4d 0x50 0x34)],"),
              std::string::npos);
    EXPECT_NE(text.find("Video codecs :"), std::string::npos);
    EXPECT_NE(text.find("\n\n\n\nCodecs:\n\n"), std::string::npos);
    EXPECT_NE(text.find("\nmatroska|"), std::string::npos);
    EXPECT_NE(text.find("Could not deduce output format from file extension: using MPEG.\nmpeg|"), std::string::npos);
    std::list<std::string> names{"a"};
    AVEncoder::disp_codec_names(names);
    EXPECT_EQ(names.size(), 1u);
}

}  // namespace
