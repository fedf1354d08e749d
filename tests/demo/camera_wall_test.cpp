// The demo end to end: a short camera wall, checked with ffprobe and by loading its PNG.
#include "common/support.h"

#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSet>
#include <QTemporaryDir>
#include <gtest/gtest.h>

TEST(CameraWall, RecordsMosaicWithSoundAndSnapshot)
{
    QTemporaryDir out;
    ASSERT_TRUE(out.isValid());
    QProcess wall;
    wall.setProcessChannelMode(QProcess::MergedChannels);
    wall.start(QStringLiteral(ORVO_CAMERA_WALL),
               {"--seconds", "2", "--streams", "4", "--out", out.path()});
    ASSERT_TRUE(wall.waitForFinished(300000));
    const QByteArray log = wall.readAll();
    ASSERT_EQ(wall.exitCode(), 0) << log.toStdString();
    EXPECT_TRUE(log.contains("camera_wall summary")) << log.toStdString();
    EXPECT_TRUE(log.contains("decode errors      0\n")) << log.toStdString();

    const QByteArray probe = orvo::test::runProgram(
        "ffprobe", {"-v", "error", "-show_streams", "-of", "json", out.filePath(QStringLiteral("camera_wall.mp4"))});
    const QJsonArray streams = QJsonDocument::fromJson(probe).object()["streams"].toArray();
    ASSERT_EQ(streams.size(), 2);
    QSet<QString> codecs;
    for (const auto& s : streams) {
        const QJsonObject o = s.toObject();
        codecs.insert(o["codec_name"].toString());
        EXPECT_NEAR(o["duration"].toString().toDouble(), 2.0, 0.1) << o["codec_name"].toString().toStdString();
        if (o["codec_type"].toString() == "video") {
            EXPECT_EQ(o["width"].toInt(), 640);
            EXPECT_EQ(o["height"].toInt(), 360);
            EXPECT_EQ(o["nb_frames"].toString().toInt(), 50);
        }
    }
    EXPECT_EQ(codecs, (QSet<QString>{"h264", "aac"}));

    QImage snapshot(out.filePath(QStringLiteral("camera_wall.png")));
    ASSERT_FALSE(snapshot.isNull());
    EXPECT_EQ(snapshot.size(), QSize(640, 360));
    QSet<QRgb> colours;
    for (int y = 0; y < snapshot.height(); y += 17)
        for (int x = 0; x < snapshot.width(); x += 13)
            colours.insert(snapshot.pixel(x, y));
    EXPECT_GT(colours.size(), 50) << "the mosaic is not one flat colour";
}
