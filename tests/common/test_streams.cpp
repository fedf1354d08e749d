#include "common/test_streams.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <gtest/gtest.h>

#include "orvo/decoder.h"
#include "orvo/stream_reader.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

namespace orvo::test {

QString dataDir()
{
    // ORVO_TEST_DATA points the suites at data made elsewhere (a machine without ffmpeg).
    const QString dir = qEnvironmentVariable("ORVO_TEST_DATA", QStringLiteral(ORVO_TEST_DATA_DIR));
    QDir().mkpath(dir);
    return dir;
}

QString ffmpegFile(const QString& name, const QString& args)
{
    const QString path = dataDir() + QLatin1Char('/') + name;
    if (QFileInfo(path).size() > 0)
        return path;
    // Write under a temporary name first so that a concurrent or interrupted run never
    // leaves a half-written file behind under the real name.
    const QString tmp = path + QStringLiteral(".part.") + QString::number(QCoreApplication::applicationPid()) +
                        QLatin1Char('.') + QFileInfo(name).suffix();
    const QString cmd = QStringLiteral("ffmpeg -nostdin -y -loglevel error %1 '%2'").arg(args, tmp);
    const int status = std::system(cmd.toLocal8Bit().constData());
    if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0 || !QFile::exists(tmp)) {
        ADD_FAILURE() << "ffmpeg failed: " << cmd.toStdString();
        QFile::remove(tmp);
        return QString();
    }
    // rename() replaces atomically: another suite that made the same file meanwhile may be
    // reading it (removing it first, as QFile::rename needs, would pull it away).
    if (std::rename(QFile::encodeName(tmp).constData(), QFile::encodeName(path).constData()) != 0)
        QFile::remove(tmp);
    return path;
}

std::vector<Packet> demuxVideo(const QString& path)
{
    std::vector<Packet> out;
    StreamReader reader;
    if (!reader.open(path)) {
        ADD_FAILURE() << "cannot open " << path.toStdString() << ": " << reader.errorString().toStdString();
        return out;
    }
    Image image;
    while (reader.read(image) == StreamReader::Result::Image)
        out.push_back({image.payload(), image.iframe(), image.time()});
    return out;
}

std::vector<Image> toImages(const std::vector<Packet>& packets, quint8 type, quint64 firstId)
{
    std::vector<Image> images;
    images.reserve(packets.size());
    for (size_t i = 0; i < packets.size(); ++i)
        images.emplace_back(type, packets[i].data, firstId + i, qint64(i) * 40, packets[i].key);
    return images;
}

std::vector<QByteArray> nalUnits(const QByteArray& au)
{
    std::vector<int> starts;
    for (int i = 0; i + 3 <= au.size(); ++i)
        if (au[i] == 0 && au[i + 1] == 0 && au[i + 2] == 1)
            starts.push_back(i > 0 && au[i - 1] == 0 ? i - 1 : i);
    std::vector<QByteArray> out;
    for (size_t k = 0; k < starts.size(); ++k)
        out.push_back(au.mid(starts[k], (k + 1 < starts.size() ? starts[k + 1] : au.size()) - starts[k]));
    if (out.empty())
        out.push_back(au);
    return out;
}

std::vector<VideoFrame> decodeImages(const std::vector<Image>& images, std::vector<quint64>* failed)
{
    std::vector<VideoFrame> frames;
    Decoder decoder;
    VideoFrame frame;
    auto ended = [&] {
        for (const Decoder::EndedImage& e : decoder.takeImagesWithoutPicture())
            if (failed)
                failed->push_back(e.image.id());
    };
    for (const Image& image : images) {
        const Decoder::ImageResult r = decoder.decodeImage(image, frame);
        if (r == Decoder::ImageResult::Picture)
            frames.push_back(std::exchange(frame, VideoFrame()));
        else if (r == Decoder::ImageResult::Failed && failed)
            failed->push_back(image.id());
        while (decoder.takePicture(frame))
            frames.push_back(std::exchange(frame, VideoFrame()));
        ended();
    }
    while (decoder.drain(frame))
        frames.push_back(std::exchange(frame, VideoFrame()));
    ended();
    return frames;
}

std::vector<QByteArray> ffmpegFrames(const QString& path, int width, int height, const QString& pixFmt,
                                     const QString& extraArgs, const QString& inputArgs)
{
    std::vector<QByteArray> frames;
    const QByteArray all =
        runProgram(QStringLiteral("ffmpeg"), QStringList{"-nostdin", "-loglevel", "error"} +
                                                 inputArgs.split(QLatin1Char(' '), Qt::SkipEmptyParts) +
                                                 QStringList{"-i", path} +
                                                 extraArgs.split(QLatin1Char(' '), Qt::SkipEmptyParts) +
                                                 QStringList{"-f", "rawvideo", "-pix_fmt", pixFmt, "-"});
    // Frame size from the format's own layout: ask FFmpeg rather than assuming 4:2:0.
    const int frameSize = av_image_get_buffer_size(av_get_pix_fmt(pixFmt.toLatin1().constData()), width, height, 1);
    EXPECT_GT(frameSize, 0) << "unknown pixel format " << pixFmt.toStdString();
    for (int off = 0; frameSize > 0 && off + frameSize <= all.size(); off += frameSize)
        frames.push_back(all.mid(off, frameSize));
    return frames;
}

QByteArray qtJpeg(int width, int height, int quality)
{
    QImage image(width, height, QImage::Format_RGB32);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            image.setPixel(x, y, qRgb(20 + 200 * x / width, 90, 230 - 200 * y / height));
    QByteArray out;
    QBuffer buffer(&out);
    buffer.open(QIODevice::WriteOnly);
    EXPECT_TRUE(image.save(&buffer, "JPEG", quality));
    return out;
}

QByteArray withJpegSize(QByteArray jpeg, int width, int height)
{
    const int sof = jpeg.indexOf(QByteArray("\xff\xc0", 2));
    if (sof < 0)
        return QByteArray();
    const char size[4] = {char(height >> 8), char(height), char(width >> 8), char(width)};
    return jpeg.replace(sof + 5, 4, size, 4);
}

int maxDiffYuv420p(const VideoFrame& frame, const QByteArray& packed, int width, int height)
{
    if (frame.isNull() || frame.width() != width || frame.height() != height ||
        frame.pixelFormat() != VideoFrame::Format_YUV420P)
        return -1;
    const int size = width * height + 2 * ((width + 1) / 2) * ((height + 1) / 2);
    const int diff = packed.size() < size ? 1000 : maxDiff(packYuv420p(frame), packed.left(size));
    return diff == 1000 ? -1 : diff;
}

QByteArray mxpegPFrame(const QByteArray& jpeg, int width, int height, int count)
{
    const int mbW = (width + 15) / 16, mbH = (height + 15) / 16;
    const char header[12] = {'M', 'X', 'M', 0, char(mbW), char(mbW >> 8), char(mbH), char(mbH >> 8)};
    QByteArray mxm(header, sizeof header);
    QByteArray mask((mbW * mbH + 7) / 8, '\0');
    for (int i = 0; i < count; ++i)
        mask[i / 8] = char(uchar(mask[i / 8]) | (0x80 >> (i % 8)));
    mxm += mask;
    QByteArray out = QByteArray("\xff\xd8\xff\xfe", 4) + char((mxm.size() + 2) >> 8) + char(mxm.size() + 2) + mxm;
    for (int i = 2; i + 4 <= jpeg.size();) {
        const uchar marker = uchar(jpeg[i + 1]);
        const int length = (uchar(jpeg[i + 2]) << 8) | uchar(jpeg[i + 3]);
        if (marker == 0xDA)
            return out + jpeg.mid(i);  // scan header, entropy data and EOI
        if (marker == 0xDB || marker == 0xC4)  // quantisation and Huffman tables
            out += jpeg.mid(i, 2 + length);
        i += 2 + length;
    }
    return out;
}

}  // namespace orvo::test
