#include "camera_stream.h"

#include <orvo/av_encoder.h>
#include <orvo/encoder.h>
#include <orvo/stream_reader.h>

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <cstdio>
#include <memory>

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace {

struct Recipe {
    const char* name;
    quint8 code;
    int width, height;
    AVCodecID codec;
    const char* muxer;
    const char* extension;
    const char* pattern;
};

// Mixed sizes and codecs, as a real wall has. MxPEG cameras send JPEG I-frames, so the
// MxPEG tiles carry Motion JPEG pictures under the MxPEG format code.
const Recipe kRecipes[] = {
    {"H.264 720p", 'h', 1280, 720, AV_CODEC_ID_H264, "h264", "h264", "testsrc2"},
    {"H.264 360p", 'h', 640, 360, AV_CODEC_ID_H264, "h264", "h264", "smptehdbars"},
    {"MJPEG", 'j', 640, 360, AV_CODEC_ID_MJPEG, "mjpeg", "mjpeg", "testsrc"},
    {"MPEG-4", 'm', 640, 360, AV_CODEC_ID_MPEG4, "m4v", "m4v", "rgbtestsrc"},
    {"H.264 360p", 'h', 640, 360, AV_CODEC_ID_H264, "h264", "h264", "yuvtestsrc"},
    {"MxPEG", 'x', 480, 272, AV_CODEC_ID_MJPEG, "mjpeg", "mjpeg", "testsrc2"},
    {"MPEG-2", 'M', 640, 360, AV_CODEC_ID_MPEG2VIDEO, "mpeg2video", "m2v", "smptebars"},
    {"MJPEG", 'j', 320, 240, AV_CODEC_ID_MJPEG, "mjpeg", "mjpeg", "rgbtestsrc"},
};

// Raw yuv420p pictures of an FFmpeg test pattern, read from the ffmpeg command line.
QByteArray testPattern(const Recipe& r, int index, int frames)
{
    QProcess ffmpeg;
    // A different hue per stream so that tiles of the same recipe differ.
    const QString filter = QStringLiteral("%1=size=%2x%3:rate=25,hue=h=%4")
                               .arg(QLatin1String(r.pattern)).arg(r.width).arg(r.height).arg(index * 37 % 360);
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 {"-nostdin", "-loglevel", "error", "-f", "lavfi", "-i", filter, "-frames:v",
                  QString::number(frames), "-f", "rawvideo", "-pix_fmt", "yuv420p", "-"});
    if (!ffmpeg.waitForFinished(300000) || ffmpeg.exitCode() != 0) {
        std::fprintf(stderr, "test pattern failed: %s\n", ffmpeg.readAllStandardError().constData());
        return QByteArray();
    }
    return ffmpeg.readAllStandardOutput();
}

// The stream cut into camera images; `code` (when not 0) replaces the format code, as for
// MxPEG cameras whose I-frames are Motion JPEG pictures.
std::vector<orvo::Image> demux(const QString& path, quint8 code, int maxFrames, CameraStream* info)
{
    std::vector<orvo::Image> images;
    orvo::StreamReader reader;
    if (!reader.open(path)) {
        std::fprintf(stderr, "%s: %s\n", qPrintable(path), qPrintable(reader.errorString()));
        return images;
    }
    if (info) {
        info->width = reader.width();
        info->height = reader.height();
        info->code = code ? code : reader.formatCode();
    }
    orvo::Image image;
    while (int(images.size()) < maxFrames && reader.read(image) == orvo::StreamReader::Result::Image) {
        if (code)
            image.setType(code);
        images.push_back(image);
    }
    return images;
}

}  // namespace

CameraStream makeSyntheticStream(int index, int frames, const QString& workDir)
{
    const Recipe& r = kRecipes[index % int(sizeof(kRecipes) / sizeof(kRecipes[0]))];
    CameraStream stream;
    stream.name = QStringLiteral("cam %1  %2").arg(index + 1, 2, 10, QLatin1Char('0')).arg(QLatin1String(r.name));
    stream.code = r.code;
    stream.width = r.width;
    stream.height = r.height;

    const QByteArray pictures = testPattern(r, index, frames);
    const int ySize = r.width * r.height, cSize = ySize / 4;
    if (pictures.size() < ySize + 2 * cSize)
        return stream;

    QDir().mkpath(workDir);
    const QString path = QStringLiteral("%1/stream%2.%3").arg(workDir).arg(index).arg(QLatin1String(r.extension));
    orvo::Encoder encoder(1);
    orvo::EncoderError error;
    static int preset = 1;  // any non-null switch: use the configured preset file
    if (!encoder.open(1, QFile::encodeName(path).toStdString(), r.muxer, r.codec, r.width, r.height, 1, 1,
                      r.width * r.height * 3, 0, 25, 1, 25, 0, 0, 0, 0, &preset, error)) {
        std::fprintf(stderr, "cannot encode %s: %s %s\n", qPrintable(stream.name), error.toString().c_str(),
                     error.additionalInfo().c_str());
        return stream;
    }
    for (int off = 0; off + ySize + 2 * cSize <= pictures.size(); off += ySize + 2 * cSize) {
        auto* y = reinterpret_cast<unsigned char*>(const_cast<char*>(pictures.constData())) + off;
        encoder.encode(y, y + ySize, y + ySize + cSize, unsigned(r.width), unsigned(r.width / 2),
                       unsigned(r.width / 2), nullptr, 0);
    }
    encoder.close();
    stream.images = demux(path, r.code, frames, nullptr);
    return stream;
}

CameraStream loadFileStream(const QString& path, int maxFrames)
{
    CameraStream stream;
    stream.name = QFileInfo(path).fileName();
    stream.images = demux(path, 0, maxFrames, &stream);
    return stream;
}
