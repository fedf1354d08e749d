// The table of formats against what clients see: the codes the dispatcher knows, the codec
// each FFmpeg input opens, the codes streams are read with, and what the linked FFmpeg can
// decode at reduced resolution.
#include "decoders/format_table.h"
#include "orvo/decoder.h"
#include "orvo/decoder_av.h"
#include "orvo/stream_reader.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <gtest/gtest.h>

#include <cctype>
#include <string>

using namespace orvo;

TEST(FormatTable, TheKnownCodesAreExactlyTheDispatchersAndEachSelectsOneRow)
{
    // The byte 0 is known too: the null decoder's.
    const std::string known("pPnNhHjJmMyYxXreE\0", 18);
    for (int b = 0; b < 256; ++b)
        EXPECT_EQ(Decoder::isKnownFormat(quint8(b)), known.find(char(b)) != std::string::npos) << "byte " << b;

    // A code listed in two rows would be shadowed by the first.
    for (const formats::Format& row : formats::all())
        for (char code : row.codes)
            EXPECT_EQ(formats::find(quint8(code)), &row) << row.name << " code " << int(quint8(code));
}

TEST(FormatTable, EveryFFmpegInputOpensTheCodecOfItsRow)
{
    int inputs = 0;
    for (const formats::Format& row : formats::all()) {
        SCOPED_TRACE(row.name);
        if (row.input == 0) {
            EXPECT_EQ(row.parser, formats::Parser::None);
            continue;
        }
        ++inputs;
        EXPECT_EQ(formats::forInput(row.input), &row);
        ASSERT_NE(avcodec_find_decoder(row.codecId), nullptr);
        DecoderAV decoder(row.input);
        EXPECT_FALSE(decoder.fail());
        EXPECT_EQ(decoder.getFormat(), row.ffmpegCode);
        // The code it reports selects the same format again.
        EXPECT_EQ(formats::find(row.ffmpegCode), &row);
        // Streams of its codec are read under the row's own code.
        EXPECT_EQ(StreamReader::formatCodeOf(row.codecId), row.code);
    }
    EXPECT_EQ(inputs, 7);
    EXPECT_EQ(DecoderAV(FormatIn(0)).getFormat(), '?');
    EXPECT_EQ(DecoderAV(FormatIn(99)).getFormat(), '?');
}

TEST(FormatTable, WaveletFieldsShareACodecAndAreToldApartByTheirLines)
{
    EXPECT_EQ(StreamReader::formatCodeOf(AV_CODEC_ID_DIRAC), 0) << "not without a height";
    ASSERT_NE(formats::forCodec(AV_CODEC_ID_DIRAC, 243), nullptr);
    EXPECT_EQ(formats::forCodec(AV_CODEC_ID_DIRAC, 243)->code, 'n');
    EXPECT_EQ(formats::forCodec(AV_CODEC_ID_DIRAC, 288)->code, 'p');
    EXPECT_EQ(formats::forCodec(AV_CODEC_ID_DIRAC, 576)->code, 'p');
    EXPECT_EQ(formats::forCodec(AV_CODEC_ID_VP9, 288), nullptr);
    EXPECT_EQ(StreamReader::formatCodeOf(AV_CODEC_ID_VP9), 0);
}

TEST(FormatTable, ReducedResolutionIsWhatTheLinkedDecoderOffers)
{
    // FFmpeg's JPEG and JPEG 2000 decoders decode at lowres; its H.264 decoder does not.
    EXPECT_GT(formats::maxLowres(*formats::find('j')), 0);
    EXPECT_GT(formats::maxLowres(*formats::find('r')), 0);
    EXPECT_EQ(formats::maxLowres(*formats::find('h')), 0);
    EXPECT_EQ(formats::maxLowres(*formats::find('y')), 0) << "no FFmpeg decoder at all";
}
