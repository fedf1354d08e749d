// A frame answered for an image carries that image's identity, whether it comes out of the
// dispatcher or is stamped on its own (the failure answers of the asynchronous decoders).
#include "decoders/frame_stamp.h"
#include "orvo/decoder.h"

#include <gtest/gtest.h>

using namespace orvo;

namespace {

// A 4 x 2 raw YUV picture with id 42, time 1234 and stream 9, and data of the client attached.
Image rawImage()
{
    QByteArray payload("\x00\x04\x00\x02", 4);
    for (int i = 0; i < 12; ++i)
        payload.append(char(i * 9));
    Image image('y', payload, 42, 1234, true);
    image.setStreamId(9);
    image.setAttachedData("meta");
    return image;
}

void expectIdentity(const VideoFrame& f, const Image& image)
{
    EXPECT_EQ(f.id(), 42u);
    EXPECT_EQ(f.streamId(), 9u);
    EXPECT_EQ(f.image().time(), 1234);
    EXPECT_EQ(f.image().payloadSize(), image.payloadSize());
    ImageHeader header;
    ASSERT_TRUE(ImageHeader::parse(f.attachedData(), header));
    EXPECT_EQ(header.id, 42u);
    EXPECT_EQ(header.payloadSize, 16u);
    EXPECT_TRUE(f.attachedData().endsWith("meta"));
}

}  // namespace

TEST(FrameStamp, APictureOfTheDispatcherCarriesItsImage)
{
    const Image image = rawImage();
    Decoder decoder;
    VideoFrame frame;
    ASSERT_EQ(decoder.decodeImage(image, frame), Decoder::ImageResult::Picture);
    expectIdentity(frame, image);
}

TEST(FrameStamp, StampingGivesTheIdentityAndLeavesThePicture)
{
    const Image image = rawImage();
    VideoFrame none;
    stampFrame(none, image);
    ASSERT_FALSE(none.isNull()) << "a null frame gets a body to carry the identity";
    expectIdentity(none, image);

    VideoFrame picture(8, 4, VideoFrame::Format_YUV420P, defaultBufferProperties);
    picture.setScale(1, 2);
    ASSERT_TRUE(picture.map(QAbstractVideoBuffer::WriteOnly));
    const unsigned char* pixels = picture.bitsY();
    picture.lineY(3)[7] = 77;
    picture.unmap();
    const VideoFrame sameBody = picture;
    stampFrame(picture, image);
    expectIdentity(picture, image);
    EXPECT_EQ(picture, sameBody);
    EXPECT_EQ(picture.getScaleY(), 2);
    ASSERT_TRUE(picture.map(QAbstractVideoBuffer::ReadOnly));
    EXPECT_EQ(picture.bitsY(), pixels);
    EXPECT_EQ(picture.lineY(3)[7], 77);
    picture.unmap();
}
