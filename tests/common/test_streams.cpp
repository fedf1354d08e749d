#include "common/test_streams.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include <cstdlib>
#include <memory>

namespace orvo::test {

QString dataDir()
{
    const QString dir = QStringLiteral(ORVO_TEST_DATA_DIR);
    QDir().mkpath(dir);
    return dir;
}

int shell(const QString& command)
{
    const int status = std::system(command.toLocal8Bit().constData());
    if (status == -1)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
    if (shell(cmd) != 0 || !QFile::exists(tmp)) {
        ADD_FAILURE() << "ffmpeg failed: " << cmd.toStdString();
        QFile::remove(tmp);
        return QString();
    }
    QFile::remove(path);
    QFile::rename(tmp, path);
    return path;
}

namespace {
struct FormatCloser {
    void operator()(AVFormatContext* c) const { avformat_close_input(&c); }
};
struct BsfFree {
    void operator()(AVBSFContext* c) const { av_bsf_free(&c); }
};
struct PacketFree {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};

Packet toPacket(const AVPacket* pkt)
{
    Packet p;
    p.data = QByteArray(reinterpret_cast<const char*>(pkt->data), pkt->size);
    p.key = (pkt->flags & AV_PKT_FLAG_KEY) != 0;
    p.pts = pkt->pts;
    return p;
}
}  // namespace

std::vector<Packet> demuxVideo(const QString& path)
{
    std::vector<Packet> out;
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.toLocal8Bit().constData(), nullptr, nullptr) < 0) {
        ADD_FAILURE() << "cannot open " << path.toStdString();
        return out;
    }
    std::unique_ptr<AVFormatContext, FormatCloser> fmt(raw);
    if (avformat_find_stream_info(fmt.get(), nullptr) < 0)
        return out;
    const int index = av_find_best_stream(fmt.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (index < 0)
        return out;
    AVCodecParameters* par = fmt->streams[index]->codecpar;

    // Length-prefixed H.264/H.265 (MP4, MKV) becomes Annex B as cameras send it.
    std::unique_ptr<AVBSFContext, BsfFree> bsf;
    const bool lengthPrefixed = par->extradata_size > 0 && par->extradata[0] == 1;
    const char* filter = nullptr;
    if (lengthPrefixed && par->codec_id == AV_CODEC_ID_H264)
        filter = "h264_mp4toannexb";
    else if (lengthPrefixed && par->codec_id == AV_CODEC_ID_HEVC)
        filter = "hevc_mp4toannexb";
    if (filter) {
        AVBSFContext* b = nullptr;
        if (av_bsf_alloc(av_bsf_get_by_name(filter), &b) < 0)
            return out;
        bsf.reset(b);
        avcodec_parameters_copy(bsf->par_in, par);
        bsf->time_base_in = fmt->streams[index]->time_base;
        if (av_bsf_init(bsf.get()) < 0)
            return out;
    }

    std::unique_ptr<AVPacket, PacketFree> pkt(av_packet_alloc());
    while (av_read_frame(fmt.get(), pkt.get()) >= 0) {
        if (pkt->stream_index != index) {
            av_packet_unref(pkt.get());
            continue;
        }
        if (!bsf) {
            out.push_back(toPacket(pkt.get()));
            av_packet_unref(pkt.get());
            continue;
        }
        if (av_bsf_send_packet(bsf.get(), pkt.get()) < 0) {
            av_packet_unref(pkt.get());
            continue;
        }
        while (av_bsf_receive_packet(bsf.get(), pkt.get()) == 0) {
            out.push_back(toPacket(pkt.get()));
            av_packet_unref(pkt.get());
        }
    }
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

std::vector<QByteArray> ffmpegFrames(const QString& path, int width, int height, const QString& pixFmt,
                                     const QString& extraArgs)
{
    std::vector<QByteArray> frames;
    QProcess ffmpeg;
    QStringList args{QStringLiteral("-nostdin"), QStringLiteral("-loglevel"), QStringLiteral("error"),
                     QStringLiteral("-i"), path};
    if (!extraArgs.isEmpty())
        args += extraArgs.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    args += {QStringLiteral("-f"), QStringLiteral("rawvideo"), QStringLiteral("-pix_fmt"), pixFmt,
             QStringLiteral("-")};
    ffmpeg.start(QStringLiteral("ffmpeg"), args);
    if (!ffmpeg.waitForFinished(120000) || ffmpeg.exitCode() != 0) {
        ADD_FAILURE() << "reference decode failed for " << path.toStdString() << ": "
                      << ffmpeg.readAllStandardError().toStdString();
        return frames;
    }
    const QByteArray all = ffmpeg.readAllStandardOutput();
    // Frame size from the format's own layout: ask FFmpeg rather than assuming 4:2:0.
    const AVPixelFormat fmt = av_get_pix_fmt(pixFmt.toLatin1().constData());
    const int frameSize = av_image_get_buffer_size(fmt, width, height, 1);
    if (frameSize <= 0) {
        ADD_FAILURE() << "unknown pixel format " << pixFmt.toStdString();
        return frames;
    }
    for (int off = 0; off + frameSize <= all.size(); off += frameSize)
        frames.push_back(all.mid(off, frameSize));
    return frames;
}

int maxDiffYuv420p(const VideoFrame& frame, const QByteArray& packed, int width, int height)
{
    if (frame.isNull() || frame.width() != width || frame.height() != height)
        return -1;
    const int cw = (width + 1) / 2, ch = (height + 1) / 2;
    if (packed.size() < width * height + 2 * cw * ch)
        return -1;
    const bool wasMapped = frame.isMapped();
    if (!wasMapped && !frame.map())
        return -1;
    const uchar* ref = reinterpret_cast<const uchar*>(packed.constData());
    int worst = 0;
    auto comparePlane = [&](const uchar* plane, unsigned bpl, const uchar* r, int w, int h) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                worst = std::max(worst, std::abs(int(plane[size_t(y) * bpl + x]) - int(r[size_t(y) * w + x])));
    };
    comparePlane(frame.bitsY(), frame.bytesPerLineY(), ref, width, height);
    comparePlane(frame.bitsU(), frame.bytesPerLineU(), ref + width * height, cw, ch);
    comparePlane(frame.bitsV(), frame.bytesPerLineV(), ref + width * height + cw * ch, cw, ch);
    if (!wasMapped)
        frame.unmap();
    return worst;
}

}  // namespace orvo::test
