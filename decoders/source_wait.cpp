#include "decoders/source_wait.h"

#include <QUrl>

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/error.h>
}

#include <chrono>

namespace orvo {
namespace {

qint64 nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

AVIOInterruptCB SourceWait::callback() { return AVIOInterruptCB{&SourceWait::interruptCallback, this}; }

int SourceWait::interruptCallback(void* opaque)
{
    const auto* wait = static_cast<const SourceWait*>(opaque);
    return wait->isStopped() || wait->isOverdue() ? 1 : 0;
}

void SourceWait::begin(int timeoutMs)
{
    timeoutMs_ = timeoutMs;
    deadlineNs_.store(timeoutMs > 0 ? nowNs() + qint64(timeoutMs) * 1000000 : 0, std::memory_order_relaxed);
}

bool SourceWait::isOverdue() const
{
    const qint64 deadline = deadlineNs_.load(std::memory_order_relaxed);
    return deadline != 0 && nowNs() > deadline;
}

QString SourceWait::reason(int code, const QString& logged) const
{
    if (isStopped())
        return QStringLiteral("interrupted");
    // A socket timeout of FFmpeg's own counts as ours: both are the wait the client set.
    if (isOverdue() || (code == AVERROR(ETIMEDOUT) && timeoutMs_ > 0))
        return QStringLiteral("timed out: nothing from the source for %1 ms").arg(timeoutMs_);
    QString text = ffmpegErrorText(code);
    if (!logged.isEmpty() && !text.contains(logged))
        text += QStringLiteral(" (FFmpeg: %1)").arg(logged);
    return text;
}

bool isNetworkUrl(const QString& path)
{
    const int colon = path.indexOf(QLatin1String("://"));
    if (colon < 2)
        return false;
    const QString scheme = path.left(colon).toLower();
    return scheme != QLatin1String("file") && scheme != QLatin1String("pipe");
}

QString displayName(const QString& path)
{
    if (!isNetworkUrl(path))
        return path;
    const QUrl url(path);
    return url.isValid() ? url.toString(QUrl::RemovePassword) : path;
}

void addNetworkOptions(const QString& url, const char* rtspTransport, int timeoutMs, AVDictionary** options)
{
    const bool rtsp = url.startsWith(QLatin1String("rtsp"), Qt::CaseInsensitive);
    if (rtsp && rtspTransport)
        av_dict_set(options, "rtsp_transport", rtspTransport, 0);
    // The session description names the codec (and mostly its parameter sets): the first
    // packet is enough, so a camera's first picture does not wait for FFmpeg to probe
    // and measure the frame rate (a few hundred milliseconds).
    if (rtsp) {
        av_dict_set(options, "probesize", "32", 0);
        av_dict_set(options, "fpsprobesize", "0", 0);
    }
    if (timeoutMs > 0) {
        // Socket waits end with the same timeout as the interrupt deadline (microseconds).
        av_dict_set_int(options, rtsp ? "timeout" : "rw_timeout", qint64(timeoutMs) * 1000, 0);
    }
}

QString ffmpegErrorText(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(code, text, sizeof text);
    return QString::fromUtf8(text);
}

}  // namespace orvo
