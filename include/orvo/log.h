#pragma once
// olog: the SDK's small logger.
//
// Each module logs through a LogCategory (a name and a mask of enabled levels).
// Debug and trace lines are emitted only when the process-wide switches
// LG_debug_enabled / LG_trace_enabled are on *and* the category enables the level;
// test with isDebugEnabled()/isTraceEnabled() before formatting expensive lines.
// Every line the SDK writes goes through one sink: the olog and odebug lines, and the
// texts the libraries print on standard output and standard error (each LogItem says
// which of the three streams it belongs to). Without a sink of its own, olog lines go to Qt's message handler
// (qDebug/qInfo/qWarning/qCritical) and the printed texts to stdout/stderr as they are.
// LogManager::instance().setSink(f) redirects everything to f, silence() drops
// everything. All functions are thread-safe.
#include "orvo/export.h"
#include <QDebug>
#include <QString>
#include <QtGlobal>
#include <atomic>
#include <functional>
#include <optional>

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

// Where the default sink puts an item.
enum class LogStream {
    Qt,              // an olog line: Qt's message handler, without a line end
    StandardOutput,  // a printed text, exactly as printed (line ends included)
    StandardError,
};

struct ORVO_EXPORT LogItem {
    const char* category = "";
    unsigned level = LOG_INFO;
    const char* function = "";
    QString message;
    LogStream stream = LogStream::Qt;
};

class ORVO_EXPORT LogManager {
public:
    using Sink = std::function<void(const LogItem&)>;
    static LogManager& instance();

    // Levels (a mask) that reach the sink at all, whatever the categories say.
    unsigned maxLogLevel() const { return maxLevel_.load(std::memory_order_relaxed); }
    void setMaxLogLevel(unsigned mask) { maxLevel_.store(mask, std::memory_order_relaxed); }

    // Replaces the sink for every line; an empty function restores the default sink.
    // The sink may be called from any thread (pooled decode jobs write too).
    void setSink(Sink sink);
    // Drops every line from now on (setSink with a sink that does nothing); lines are then
    // not even formatted.
    void silence();
    bool isSilenced() const { return silenced_.load(std::memory_order_relaxed); }
    // What happens to an item when no sink is set; a sink may pass items on to it.
    static void defaultSink(const LogItem& item);
    void write(const LogItem& item);

private:
    LogManager() = default;
    std::atomic<unsigned> maxLevel_{LOG_ALL};
    std::atomic<bool> silenced_{false};
};

// printf-style line at `level`; dropped when the category or the manager masks it,
// and for debug/trace when the process-wide switch is off.
ORVO_EXPORT void olog(const LogCategory& category, unsigned level, const char* function, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 4, 5)))
#endif
    ;

// A qDebug()-style line that goes through the sink (debug level, Qt stream) when the
// statement ends: odebug() << "value" << 5; the default sink hands it to qDebug's handler.
class ORVO_EXPORT ODebug {
public:
    ODebug() : debug_(std::in_place, &text_) {}
    ODebug(const ODebug&) = delete;
    ODebug& operator=(const ODebug&) = delete;
    ~ODebug();
    template <typename T>
    ODebug& operator<<(const T& value)
    {
        *debug_ << value;
        return *this;
    }
    ODebug& nospace()
    {
        debug_->nospace();
        return *this;
    }
    ODebug& noquote()
    {
        debug_->noquote();
        return *this;
    }

private:
    QString text_;
    std::optional<QDebug> debug_;
};

inline ODebug odebug() { return ODebug(); }

// printf-style text that the libraries print on `stream` (standard output or error),
// passed through the sink; the default sink writes it unchanged.
ORVO_EXPORT void oprint(LogStream stream, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

}  // namespace orvo
