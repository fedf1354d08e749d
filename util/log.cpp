#include "orvo/log.h"

#include <QMessageLogger>
#include <QMutex>
#include <cstdarg>
#include <cstdio>

namespace orvo {

std::atomic<bool> LG_debug_enabled{false};
std::atomic<bool> LG_trace_enabled{false};

LogCategory::LogCategory(const char* name, unsigned levelMask) : name_(name), mask_(levelMask) {}

bool LogCategory::isEnabled(unsigned level) const
{
    if (!(levelMask() & level) || !(LogManager::instance().maxLogLevel() & level))
        return false;
    if (level == LOG_DEBUG)
        return LG_debug_enabled.load(std::memory_order_relaxed);
    if (level == LOG_TRACE)
        return LG_trace_enabled.load(std::memory_order_relaxed);
    return true;
}

namespace {
QMutex sinkMutex;
LogManager::Sink currentSink;

void qtSink(const LogItem& item)
{
    if (item.stream != LogStream::Qt) {
        std::FILE* out = item.stream == LogStream::StandardError ? stderr : stdout;
        std::fputs(item.message.toUtf8().constData(), out);
        return;
    }
    QMessageLogger logger(nullptr, 0, item.function, item.category);
    const QByteArray text = item.message.toUtf8();
    switch (item.level) {
    case LOG_TRACE:
    case LOG_DEBUG: logger.debug("%s", text.constData()); break;
    case LOG_INFO: logger.info("%s", text.constData()); break;
    case LOG_WARNING: logger.warning("%s", text.constData()); break;
    default: logger.critical("%s", text.constData()); break;
    }
}
}  // namespace

LogManager& LogManager::instance()
{
    static LogManager manager;
    return manager;
}

void LogManager::setSink(Sink sink)
{
    QMutexLocker lock(&sinkMutex);
    currentSink = std::move(sink);
    silenced_.store(false, std::memory_order_relaxed);
}

void LogManager::silence()
{
    QMutexLocker lock(&sinkMutex);
    currentSink = [](const LogItem&) {};
    silenced_.store(true, std::memory_order_relaxed);
}

void LogManager::defaultSink(const LogItem& item) { qtSink(item); }

void LogManager::write(const LogItem& item)
{
    Sink sink;
    {
        QMutexLocker lock(&sinkMutex);
        sink = currentSink;
    }
    if (sink)
        sink(item);
    else
        qtSink(item);
}

void olog(const LogCategory& category, unsigned level, const char* function, const char* format, ...)
{
    if (!category.isEnabled(level) || LogManager::instance().isSilenced())
        return;
    va_list args;
    va_start(args, format);
    LogItem item;
    item.category = category.name();
    item.level = level;
    item.function = function ? function : "";
    item.message = QString::vasprintf(format, args);
    va_end(args);
    LogManager::instance().write(item);
}

ODebug::~ODebug()
{
    debug_.reset();  // QDebug completes its text (and its trailing space) as it goes
    LogItem item;
    item.category = "orvo";
    item.level = LOG_DEBUG;
    // QDebug separates items with spaces, the last one included; Qt's handler drops it too.
    if (text_.endsWith(QLatin1Char(' ')))
        text_.chop(1);
    item.message = text_;
    LogManager::instance().write(item);
}

void oprint(LogStream stream, const char* format, ...)
{
    if (LogManager::instance().isSilenced())
        return;
    va_list args;
    va_start(args, format);
    LogItem item;
    item.category = "orvo";
    item.level = stream == LogStream::StandardError ? LOG_ERROR : LOG_INFO;
    item.message = QString::vasprintf(format, args);
    item.stream = stream;
    va_end(args);
    LogManager::instance().write(item);
}

}  // namespace orvo
