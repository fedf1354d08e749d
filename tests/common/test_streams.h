#pragma once
// Real test data made at test time by FFmpeg's own encoders, and independent
// reference decodes by the ffmpeg command line.
#include "common/support.h"
#include "orvo/image.h"
#include "orvo/video_frame.h"

#include <QByteArray>
#include <QString>
#include <vector>

namespace orvo::test {

// Writable directory for generated data (created on first use): $ORVO_TEST_DATA where set.
QString dataDir();

// Path of `name` under dataDir(), made once by `ffmpeg -y -loglevel error <args> <path>`
// (kept for later calls and later test runs). Fails the calling test (ADD_FAILURE) and
// returns an empty string when ffmpeg fails.
QString ffmpegFile(const QString& name, const QString& args);

// A test clip: its name (also its file name where a suite keeps one), the format code its
// images are sent with, and the ffmpeg arguments that make it.
struct ClipSpec {
    const char* name;
    quint8 code;
    const char* encode;
};

struct Packet {
    QByteArray data;
    bool key = false;
    qint64 timeMs = 0;
};

// Access units of the first video stream of `path`, as orvo::StreamReader cuts them (H.264
// and H.265 in Annex B, the way cameras send them).
std::vector<Packet> demuxVideo(const QString& path);

// NAL units of an Annex B access unit, each with its own start code (the whole unit when
// it has none).
std::vector<QByteArray> nalUnits(const QByteArray& au);
// Camera images from packets: format code, ids 1, 2, ... (or from firstId), time = index * 40,
// I-frame flag from the packet.
std::vector<Image> toImages(const std::vector<Packet>& packets, quint8 type, quint64 firstId = 1);

// Every image through one orvo::Decoder (decodeImage and takePicture), then its drain: the
// pictures in output order. The ids of images that failed or ended without a picture go to
// `failed` when given.
std::vector<VideoFrame> decodeImages(const std::vector<Image>& images, std::vector<quint64>* failed = nullptr);

// Every picture of `path` decoded by the ffmpeg command line into raw `pixFmt` frames of
// width x height; `extraArgs` go before the output (e.g. "-sws_flags bilinear"),
// `inputArgs` before the input (decoder options such as "-threads 1").
std::vector<QByteArray> ffmpegFrames(const QString& path, int width, int height,
                                     const QString& pixFmt = QStringLiteral("yuv420p"),
                                     const QString& extraArgs = QString(), const QString& inputArgs = QString());

// A smooth colour picture (red along x, blue along y) saved as JPEG by Qt's libjpeg.
QByteArray qtJpeg(int width, int height, int quality = 95);

// The same JPEG declaring another size in its (baseline) frame header; empty without one.
QByteArray withJpegSize(QByteArray jpeg, int width, int height);

// An MxPEG P-frame carrying the first `count` macroblocks (raster order) of `jpeg`, a picture
// of width x height: SOI, the COM segment "MXM" with the macroblock bitmask, the JPEG's tables,
// its scan and EOI - no frame header. A decoder reads scan data only for the masked
// macroblocks, so the JPEG's unchanged scan serves.
QByteArray mxpegPFrame(const QByteArray& jpeg, int width, int height, int count);

// Largest absolute difference between the planes of a 4:2:0 frame and a packed yuv420p
// picture; -1 when the geometry differs or the frame cannot be mapped.
int maxDiffYuv420p(const VideoFrame& frame, const QByteArray& packed, int width, int height);

}  // namespace orvo::test
