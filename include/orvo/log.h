#pragma once
// olog: the SDK's small logger.
//
// Each module logs through a LogCategory (a name and a mask of enabled levels).
// Debug and trace lines are emitted only when the process-wide switches
// LG_debug_enabled / LG_trace_enabled are on *and* the category enables the level;
// test with isDebugEnabled()/isTraceEnabled() before formatting expensive lines.
// Items go to a sink; the default sink writes through Qt's message handler
// (qDebug/qInfo/qWarning/qCritical), so applications redirect them with
// qInstallMessageHandler. All functions are thread-safe.
#include "orvo/export.h"
#include <QString>
#include <QtGlobal>
#include <atomic>
#include <functional>

namespace orvo {

enum LogLevel : unsigned {
    LOG_TRACE = 1,
    LOG_DEBUG = 2,
    LOG_INFO = 4,
    LOG_WARNING = 8,
    LOG_ERROR = 16,
    LOG_FATAL = 32,
    LOG_ALL = 0xFFFF,
};

extern ORVO_EXPORT std::atomic<bool> LG_debug_enabled;
extern ORVO_EXPORT std::atomic<bool> LG_trace_enabled;

class ORVO_EXPORT LogCategory {
public:
    explicit LogCategory(const char* name, unsigned levelMask = LOG_ALL);
    const char* name() const { return name_; }
    unsigned levelMask() const { return mask_.load(std::memory_order_relaxed); }
    void setLevelMask(unsigned mask) { mask_.store(mask, std::memory_order_relaxed); }
    bool isEnabled(unsigned level) const;
    bool isDebugEnabled() const { return LG_debug_enabled.load(std::memory_order_relaxed) && isEnabled(LOG_DEBUG); }
    bool isTraceEnabled() const { return LG_trace_enabled.load(std::memory_order_relaxed) && isEnabled(LOG_TRACE); }

private:
    const char* name_;
    std::atomic<unsigned> mask_;
};

struct ORVO_EXPORT LogItem {
    const char* category = "";
    unsigned level = LOG_INFO;
    const char* function = "";
    QString message;
};

class ORVO_EXPORT LogManager {
public:
    using Sink = std::function<void(const LogItem&)>;
    static LogManager& instance();

    // Levels (a mask) that reach the sink at all, whatever the categories say.
    unsigned maxLogLevel() const { return maxLevel_.load(std::memory_order_relaxed); }
    void setMaxLogLevel(unsigned mask) { maxLevel_.store(mask, std::memory_order_relaxed); }

    // Replaces the sink; an empty function restores the Qt message handler sink.
    void setSink(Sink sink);
    void write(const LogItem& item);

private:
    LogManager() = default;
    std::atomic<unsigned> maxLevel_{LOG_ALL};
};

// printf-style line at `level`; dropped when the category or the manager masks it,
// and for debug/trace when the process-wide switch is off.
ORVO_EXPORT void olog(const LogCategory& category, unsigned level, const char* function, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 4, 5)))
#endif
    ;

}  // namespace orvo
