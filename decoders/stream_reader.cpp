#include "orvo/stream_reader.h"

#include "decoders/ffmpeg_log.h"
#include "decoders/format_table.h"
#include "decoders/source_wait.h"

#include <QFile>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cstring>
#include <deque>

namespace orvo {
namespace {

constexpr int kIoBufferSize = 64 * 1024;

// In-memory input for libavformat.
struct MemoryInput {
    QByteArray data;
    qint64 position = 0;

    static int read(void* opaque, uint8_t* buffer, int size)
    {
        auto* in = static_cast<MemoryInput*>(opaque);
        const qint64 left = in->data.size() - in->position;
        if (left <= 0)
            return AVERROR_EOF;
        const int n = int(std::min<qint64>(left, size));
        std::memcpy(buffer, in->data.constData() + in->position, size_t(n));
        in->position += n;
        return n;
    }

    static int64_t seek(void* opaque, int64_t offset, int whence)
    {
        auto* in = static_cast<MemoryInput*>(opaque);
        const qint64 size = in->data.size();
        qint64 target;
        switch (whence & ~AVSEEK_FORCE) {
        case AVSEEK_SIZE: return size;
        case SEEK_SET: target = offset; break;
        case SEEK_CUR: target = in->position + offset; break;
        case SEEK_END: target = size + offset; break;
        default: return AVERROR(EINVAL);
        }
        if (target < 0 || target > size)
            return AVERROR(EINVAL);
        in->position = target;
        return target;
    }
};

// Raw elementary streams carry their headers in band already.
bool isElementaryStream(const AVInputFormat* format)
{
    static const char* const kRaw[] = {"h264", "hevc", "mpegvideo", "m4v", "mjpeg", "mpjpeg"};
    for (const char* name : kRaw)
        if (std::strcmp(format->name, name) == 0)
            return true;
    return false;
}

// The filter that puts a packet in the form cameras send, or null when none is needed.
const char* cameraFormFilter(const AVCodecParameters* par, const AVInputFormat* format)
{
    if (isElementaryStream(format))
        return nullptr;
    // Length-prefixed H.264/H.265 (MP4, MKV) becomes Annex B with parameter sets in band.
    const bool lengthPrefixed = par->extradata_size > 0 && par->extradata[0] == 1;
    if (lengthPrefixed && par->codec_id == AV_CODEC_ID_H264)
        return "h264_mp4toannexb";
    if (lengthPrefixed && par->codec_id == AV_CODEC_ID_HEVC)
        return "hevc_mp4toannexb";
    // Headers kept out of band by the container go in front of each I-frame (the filter
    // leaves packets that already start with them alone).
    if (par->extradata_size > 0 &&
        (par->codec_id == AV_CODEC_ID_MPEG4 || par->codec_id == AV_CODEC_ID_MPEG2VIDEO ||
         par->codec_id == AV_CODEC_ID_H264 || par->codec_id == AV_CODEC_ID_HEVC))
        return "dump_extra";
    return nullptr;
}

const char* transportName(StreamReader::Transport transport)
{
    switch (transport) {
    case StreamReader::Transport::Tcp: return "tcp";
    case StreamReader::Transport::Udp: return "udp";
    case StreamReader::Transport::Auto: break;
    }
    return nullptr;
}

}  // namespace

struct StreamReader::State {
    AVFormatContext* format = nullptr;
    AVIOContext* io = nullptr;
    MemoryInput memory;
    AVBSFContext* filter = nullptr;
    AVPacket* packet = nullptr;
    int stream = -1;
    quint8 code = 0;
    quint64 nextId = 1;
    bool inputDone = false;
    bool network = false;
    qint64 untimedTicks = 0;  // raw streams: the time so far, in the stream's time base
    QString source;           // as messages name it
    QString error;
    // Settings, kept across open and close.
    Transport transport = Transport::Auto;
    int timeoutMs = kDefaultTimeoutMs;
    double frameRate = kDefaultFrameRate;
    SourceWait wait;

    void reset()
    {
        av_bsf_free(&filter);
        avformat_close_input(&format);
        if (io) {
            av_freep(&io->buffer);
            avio_context_free(&io);
        }
        av_packet_free(&packet);
        memory = MemoryInput();
        stream = -1;
        code = 0;
        nextId = 1;
        inputDone = false;
        network = false;
        untimedTicks = 0;
    }
};

StreamReader::StreamReader() : d(new State) {}

StreamReader::~StreamReader()
{
    d->reset();
    delete d;
}

quint8 StreamReader::formatCodeOf(int codecId)
{
    const formats::Format* row = formats::forCodec(AVCodecID(codecId));
    return row ? row->code : 0;
}

bool StreamReader::fail(const QString& message)
{
    d->reset();
    d->error = message;
    return false;
}

void StreamReader::setTransport(Transport transport) { d->transport = transport; }
StreamReader::Transport StreamReader::transport() const { return d->transport; }
void StreamReader::setTimeout(int milliseconds) { d->timeoutMs = milliseconds; }
int StreamReader::timeout() const { return d->timeoutMs; }
void StreamReader::setFrameRate(double framesPerSecond) { d->frameRate = framesPerSecond; }
double StreamReader::frameRate() const { return d->frameRate; }
void StreamReader::interrupt() { d->wait.stop(); }
bool StreamReader::isInterrupted() const { return d->wait.isStopped(); }
bool StreamReader::isNetworkStream() const { return d->network; }

bool StreamReader::open(const QString& path)
{
    d->reset();
    d->error.clear();
    d->source = displayName(path);
    if (d->wait.isStopped())
        return fail(QStringLiteral("cannot open %1: interrupted").arg(d->source));
    applyFFmpegLogMode();  // FFmpeg's complaints reach the client's sink, or nowhere
    d->format = avformat_alloc_context();
    if (!d->format)
        return fail(QStringLiteral("out of memory"));
    d->format->interrupt_callback = d->wait.callback();
    d->network = isNetworkUrl(path);
    AVDictionary* options = nullptr;
    if (d->network)
        addNetworkOptions(path, transportName(d->transport), d->timeoutMs, &options);
    else if (d->frameRate > 0)  // raw elementary streams without timing of their own run at this rate
        av_dict_set(&options, "framerate", QByteArray::number(d->frameRate, 'g', 10).constData(), 0);
    FFmpegErrorCapture said;
    d->wait.begin(d->network ? d->timeoutMs : 0);
    const int ret = avformat_open_input(&d->format, QFile::encodeName(path).constData(), nullptr, &options);
    av_dict_free(&options);
    // On failure avformat_open_input has freed the context.
    if (ret < 0)
        return fail(QStringLiteral("cannot open %1: %2").arg(d->source, d->wait.reason(ret, said.text())));
    return start();
}

bool StreamReader::openData(const QByteArray& data, const QString& formatName)
{
    d->reset();
    d->error.clear();
    d->source = QStringLiteral("the stream in memory");
    if (data.isEmpty())
        return fail(QStringLiteral("no data"));
    const AVInputFormat* forced = nullptr;
    if (!formatName.isEmpty()) {
        forced = av_find_input_format(formatName.toLatin1().constData());
        if (!forced)
            return fail(QStringLiteral("unknown format %1").arg(formatName));
    }
    d->memory.data = data;
    auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferSize));
    d->format = avformat_alloc_context();
    if (buffer)
        d->io = avio_alloc_context(buffer, kIoBufferSize, 0, &d->memory, &MemoryInput::read, nullptr,
                                   &MemoryInput::seek);
    if (!d->io || !d->format) {
        if (!d->io)
            av_free(buffer);
        return fail(QStringLiteral("out of memory"));
    }
    d->format->pb = d->io;
    d->format->flags |= AVFMT_FLAG_CUSTOM_IO;
    AVDictionary* options = nullptr;
    if (d->frameRate > 0)
        av_dict_set(&options, "framerate", QByteArray::number(d->frameRate, 'g', 10).constData(), 0);
    d->wait.begin(0);  // memory never keeps a reader waiting
    // On failure avformat_open_input frees the context (not the custom I/O).
    const int ret = avformat_open_input(&d->format, nullptr, forced, &options);
    av_dict_free(&options);
    if (ret < 0)
        return fail(QStringLiteral("not a media stream"));
    return start();
}

bool StreamReader::start()
{
    FFmpegErrorCapture said;
    const int ret = avformat_find_stream_info(d->format, nullptr);
    if (ret < 0 || d->wait.isStopped() || d->wait.isOverdue())
        return fail(QStringLiteral("cannot read the parameters of %1: %2")
                        .arg(d->source, d->wait.reason(ret < 0 ? ret : AVERROR_EXIT, said.text())));
    d->stream = av_find_best_stream(d->format, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (d->stream < 0)
        return fail(QStringLiteral("no video stream"));
    AVStream* video = d->format->streams[d->stream];
    // The wavelet fields share one codec and are told apart by their lines.
    const formats::Format* row = formats::forCodec(video->codecpar->codec_id, video->codecpar->height);
    d->code = row ? row->code : 0;
    if (!d->code)
        return fail(QStringLiteral("unsupported codec %1").arg(QString::fromUtf8(avcodec_get_name(video->codecpar->codec_id))));
    for (unsigned i = 0; i < d->format->nb_streams; ++i)
        d->format->streams[i]->discard = int(i) == d->stream ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    if (const char* name = cameraFormFilter(video->codecpar, d->format->iformat)) {
        const AVBitStreamFilter* bsf = av_bsf_get_by_name(name);
        if (!bsf || av_bsf_alloc(bsf, &d->filter) < 0)
            return fail(QStringLiteral("out of memory"));
        avcodec_parameters_copy(d->filter->par_in, video->codecpar);
        d->filter->time_base_in = video->time_base;
        if (av_bsf_init(d->filter) < 0)
            return fail(QStringLiteral("cannot convert the stream to camera form"));
    }
    d->packet = av_packet_alloc();
    if (!d->packet)
        return fail(QStringLiteral("out of memory"));
    return true;
}

void StreamReader::close()
{
    d->reset();
    d->error.clear();
    d->wait.clearStop();
}

bool StreamReader::isOpen() const { return d->format != nullptr; }

StreamReader::Result StreamReader::read(Image& image)
{
    if (!d->format || !d->packet)
        return Result::Error;
    if (d->wait.isStopped())
        return failRead(QStringLiteral("reading %1: interrupted").arg(d->source));
    AVPacket* pkt = d->packet;
    d->wait.begin(d->network ? d->timeoutMs : 0);
    for (;;) {
        if (d->filter) {
            const int ret = av_bsf_receive_packet(d->filter, pkt);
            if (ret == AVERROR_EOF)
                return Result::End;
            if (ret < 0 && ret != AVERROR(EAGAIN))
                return failRead(QStringLiteral("conversion failed: %1").arg(ffmpegErrorText(ret)));
        }
        if (!d->filter || pkt->size == 0 || !pkt->data) {
            // Nothing filtered yet: read the next packet of the video stream.
            if (d->inputDone)
                return Result::End;
            FFmpegErrorCapture said;
            const int ret = av_read_frame(d->format, pkt);
            if (ret == AVERROR_EOF || (ret < 0 && avio_feof(d->format->pb))) {
                d->inputDone = true;
                // FFmpeg tells a finished session from a closed connection by neither.
                if (d->network)
                    d->error = QStringLiteral("%1: the server ended the stream or closed the connection")
                                   .arg(d->source);
                if (!d->filter)
                    return Result::End;
                av_bsf_send_packet(d->filter, nullptr);
                continue;
            }
            if (ret < 0)
                return failRead(
                    QStringLiteral("reading %1 failed: %2").arg(d->source, d->wait.reason(ret, said.text())));
            if (pkt->stream_index != d->stream || pkt->size <= 0) {
                av_packet_unref(pkt);
                continue;
            }
            if (d->filter) {
                if (av_bsf_send_packet(d->filter, pkt) < 0)
                    av_packet_unref(pkt);
                continue;
            }
        }
        image = Image(d->code, QByteArray(reinterpret_cast<const char*>(pkt->data), pkt->size), d->nextId++,
                      timeOf(pkt), (pkt->flags & AV_PKT_FLAG_KEY) != 0);
        image.setAccessUnitEnd(true);  // one packet is one whole access unit
        av_packet_unref(pkt);
        return Result::Image;
    }
}

StreamReader::Result StreamReader::failRead(const QString& message)
{
    d->error = message;
    return Result::Error;
}

// Milliseconds from the packet's time stamp; a raw stream's packets have none and are
// timed by their durations (the stream's timing, or the frame rate given).
qint64 StreamReader::timeOf(const AVPacket* pkt)
{
    const AVRational tb = d->format->streams[d->stream]->time_base;
    const qint64 stamp = pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts;
    if (stamp != AV_NOPTS_VALUE)
        return av_rescale_q(stamp, tb, AVRational{1, 1000});
    const qint64 at = d->untimedTicks;
    const double rate = d->frameRate > 0 ? d->frameRate : kDefaultFrameRate;
    d->untimedTicks += pkt->duration > 0 ? pkt->duration : qint64(av_q2d(av_inv_q(tb)) / rate);
    return av_rescale_q(at, tb, AVRational{1, 1000});
}

quint8 StreamReader::formatCode() const { return d->code; }

int StreamReader::width() const
{
    return d->format && d->stream >= 0 ? d->format->streams[d->stream]->codecpar->width : 0;
}

int StreamReader::height() const
{
    return d->format && d->stream >= 0 ? d->format->streams[d->stream]->codecpar->height : 0;
}

QString StreamReader::errorString() const { return d->error; }

}  // namespace orvo
