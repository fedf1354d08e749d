#include "decoders/ffmpeg_log.h"

#include "orvo/ffmpeg_log.h"
#include "orvo/log.h"

extern "C" {
#include <libavutil/log.h>
}

#include <QMutex>
#include <cstdarg>
#include <string>

namespace orvo {
namespace {

LogCategory ffmpegLog("ffmpeg");

QMutex modeMutex;
FFmpegLogMode currentMode = FFmpegLogMode::Silenced;
bool callbackInstalled = false;  // a callback of ours is in FFmpeg

thread_local FFmpegErrorCapture* currentCapture = nullptr;
constexpr int kCapturedLines = 4;

// Hands an error line to the capture of this thread, if there is one.
void captureFFmpegLine(void* context, int level, const char* format, va_list args)
{
    if (level > AV_LOG_ERROR || !currentCapture)
        return;
    char line[1024];
    int printPrefix = 0;  // the "[tcp @ 0x...]" prefix says nothing to a client
    va_list copy;
    va_copy(copy, args);
    av_log_format_line2(context, level, format, copy, line, sizeof line, &printPrefix);
    va_end(copy);
    currentCapture->add(QString::fromUtf8(line).trimmed());
}

void ignoreFFmpegLog(void* context, int level, const char* format, va_list args)
{
    captureFFmpegLine(context, level, format, args);
}

unsigned levelOf(int ffmpegLevel)
{
    if (ffmpegLevel <= AV_LOG_FATAL)
        return LOG_FATAL;
    if (ffmpegLevel <= AV_LOG_ERROR)
        return LOG_ERROR;
    if (ffmpegLevel <= AV_LOG_WARNING)
        return LOG_WARNING;
    if (ffmpegLevel <= AV_LOG_INFO)
        return LOG_INFO;
    if (ffmpegLevel <= AV_LOG_DEBUG)
        return LOG_DEBUG;
    return LOG_TRACE;
}

// FFmpeg hands over pieces of lines; each thread collects its own until the line end.
void forwardFFmpegLog(void* context, int level, const char* format, va_list args)
{
    captureFFmpegLine(context, level, format, args);
    if (level > av_log_get_level() || !ffmpegLog.isEnabled(levelOf(level)))
        return;
    thread_local std::string pending;
    thread_local int printPrefix = 1;
    char piece[1024];
    va_list copy;
    va_copy(copy, args);
    av_log_format_line2(context, level, format, copy, piece, sizeof piece, &printPrefix);
    va_end(copy);
    pending += piece;
    if (pending.empty() || pending.back() != '\n')
        return;
    pending.pop_back();
    LogItem item;
    item.category = ffmpegLog.name();
    item.level = levelOf(level);
    item.function = "";
    item.message = QString::fromUtf8(pending.data(), int(pending.size()));
    pending.clear();
    LogManager::instance().write(item);
}

void install(FFmpegLogMode mode)
{
    switch (mode) {
    case FFmpegLogMode::Silenced:
        av_log_set_callback(ignoreFFmpegLog);
        av_log_set_level(65535);
        callbackInstalled = true;
        break;
    case FFmpegLogMode::ToSink:
        av_log_set_callback(forwardFFmpegLog);
        av_log_set_level(AV_LOG_INFO);
        callbackInstalled = true;
        break;
    case FFmpegLogMode::Untouched:
        if (callbackInstalled) {
            av_log_set_callback(av_log_default_callback);
            av_log_set_level(AV_LOG_INFO);
            callbackInstalled = false;
        }
        break;
    }
}

}  // namespace

FFmpegErrorCapture::FFmpegErrorCapture() : outer_(currentCapture) { currentCapture = this; }

FFmpegErrorCapture::~FFmpegErrorCapture() { currentCapture = outer_; }

void FFmpegErrorCapture::add(const QString& line)
{
    if (line.isEmpty() || lines_.contains(line))
        return;
    lines_.append(line);
    if (lines_.size() > kCapturedLines)
        lines_.removeFirst();
}

QString FFmpegErrorCapture::text() const { return lines_.join(QStringLiteral("; ")); }

void setFFmpegLogMode(FFmpegLogMode mode)
{
    QMutexLocker lock(&modeMutex);
    currentMode = mode;
    install(mode);
}

FFmpegLogMode ffmpegLogMode()
{
    QMutexLocker lock(&modeMutex);
    return currentMode;
}

// Installed once and then left alone: swapping the callback while other threads decode
// or encode would be a data race inside FFmpeg.
void applyFFmpegLogMode()
{
    QMutexLocker lock(&modeMutex);
    if (currentMode == FFmpegLogMode::Silenced && !callbackInstalled)
        install(currentMode);
}

}  // namespace orvo
