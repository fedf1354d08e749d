// The SDK utility types: image sharing and weak references, the network header, the logger.
#include "orvo/image.h"
#include "orvo/log.h"
#include "orvo/video_frame.h"

#include <gtest/gtest.h>

using orvo::Image;
using orvo::ImageHeader;
using orvo::WeakImage;

TEST(Image, SharingDetachAndWeakReferences)
{
    WeakImage weak;
    {
        QByteArray bytes("\x00\x00\x00\x01\x65", 5);
        Image a('h', bytes, 7, 1000, true);
        a.setStreamId(3).setChannel(2).setFlags(2);
        bytes[4] = 'X';
        EXPECT_EQ(a.payloadData()[4], 0x65) << "the image keeps its own bytes";
        Image b = a;
        EXPECT_TRUE(b.sharesDataWith(a));
        b.setId(8);
        EXPECT_FALSE(b.sharesDataWith(a));
        EXPECT_EQ(a.id(), 7u);
        weak = a;
        EXPECT_FALSE(weak.isNull());
        Image strong;
        strong = weak;
        EXPECT_TRUE(strong.sharesDataWith(a));
        EXPECT_EQ(strong.payloadSize(), 5u);
    }
    EXPECT_TRUE(weak.isNull());
    Image revived;
    revived = weak;
    EXPECT_TRUE(revived.isNull());
    EXPECT_EQ(revived.payloadData(), nullptr);
    EXPECT_EQ(revived.payloadSize(), 0u);
}

TEST(Image, NetworkHeaderRoundTripAndAttachment)
{
    Image img('j', QByteArray(1234, 'a'), 0x0102030405060708ull, -5, true);
    img.setChannel(9).setStreamId(77).setFlags(0x12).setAttachedData("extra");
    const QByteArray raw = img.generateNetworkImageHeader(orvo::ImageHeaderVersion::V1);
    ASSERT_EQ(raw.size(), ImageHeader::kSizeV1);
    EXPECT_EQ(raw.left(4), QByteArray("OIMG"));
    ImageHeader h;
    ASSERT_TRUE(ImageHeader::parse(raw, h));
    EXPECT_EQ(h.id, 0x0102030405060708ull);
    EXPECT_EQ(h.time, -5);
    EXPECT_EQ(h.channel, 9u);
    EXPECT_EQ(h.streamId, 77u);
    EXPECT_EQ(h.type, 'j');
    EXPECT_EQ(h.flags, 0x12);
    EXPECT_TRUE(h.iframe);
    EXPECT_EQ(h.payloadSize, 1234u);
    EXPECT_EQ(h.attachedSize, 5u);
    EXPECT_FALSE(ImageHeader::parse(raw.left(39), h));
    EXPECT_FALSE(ImageHeader::parse(QByteArray(40, 'x'), h));

    orvo::VideoFrame frame;
    frame.attachImageData(img, 1000);
    const QByteArray attached = frame.attachedData();
    ASSERT_EQ(attached.size(), ImageHeader::kSizeV1 + 5);
    ASSERT_TRUE(ImageHeader::parse(attached, h));
    EXPECT_EQ(h.payloadSize, 1000u);
    EXPECT_EQ(attached.right(5), QByteArray("extra"));
}

TEST(Log, LevelsCategoriesAndSwitches)
{
    std::vector<orvo::LogItem> items;
    orvo::LogManager::instance().setSink([&](const orvo::LogItem& item) { items.push_back(item); });
    orvo::LogCategory cat("test.category");
    orvo::olog(cat, orvo::LOG_ERROR, "Fn::name", "value %d", 5);
    orvo::olog(cat, orvo::LOG_DEBUG, "Fn::name", "hidden");
    EXPECT_FALSE(cat.isDebugEnabled());
    orvo::LG_debug_enabled = true;
    EXPECT_TRUE(cat.isDebugEnabled());
    orvo::olog(cat, orvo::LOG_DEBUG, "Fn::name", "shown");
    cat.setLevelMask(orvo::LOG_ERROR);
    orvo::olog(cat, orvo::LOG_DEBUG, "Fn::name", "masked");
    orvo::LG_debug_enabled = false;
    orvo::LogManager::instance().setMaxLogLevel(orvo::LOG_ALL & ~orvo::LOG_ERROR);
    orvo::olog(cat, orvo::LOG_ERROR, "Fn::name", "above max");
    orvo::LogManager::instance().setMaxLogLevel(orvo::LOG_ALL);
    orvo::LogManager::instance().setSink({});
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0].message, QString("value 5"));
    EXPECT_EQ(items[0].level, unsigned(orvo::LOG_ERROR));
    EXPECT_STREQ(items[0].function, "Fn::name");
    EXPECT_STREQ(items[0].category, "test.category");
    EXPECT_EQ(items[1].message, QString("shown"));
}
