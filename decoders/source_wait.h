#pragma once
// SourceWait: how long a StreamReader waits on its source, and how another thread stops it.
//
// FFmpeg polls an interrupt callback while it waits on a network source (connecting, the
// RTSP handshake, each packet). The callback answers "stop" once the deadline of the call
// in progress has passed or once stop() was called, so a blocked open or read returns with
// AVERROR_EXIT; reason() then tells which of the two it was.
//
// Threads: stop() and isStopped() may be called from any thread at any time; the rest on
// the reader's thread. The object must outlive every FFmpeg context it was given to.
#include <QString>

extern "C" {
#include <libavformat/avio.h>
}

#include <atomic>

struct AVDictionary;

namespace orvo {

class SourceWait {
public:
    // The callback to put into AVFormatContext::interrupt_callback.
    AVIOInterruptCB callback();

    void stop() { stopped_.store(true); }
    bool isStopped() const { return stopped_.load(); }
    void clearStop() { stopped_.store(false); }

    // A call that may wait begins: it may wait `timeoutMs` from now (0 or less: for ever).
    void begin(int timeoutMs);
    bool isOverdue() const;

    // Why a call that failed with FFmpeg's `code` failed: "interrupted", the timeout it ran
    // out of, or FFmpeg's own reason with what FFmpeg logged about it (`logged`).
    QString reason(int code, const QString& logged) const;

private:
    static int interruptCallback(void* opaque);

    std::atomic<bool> stopped_{false};
    std::atomic<qint64> deadlineNs_{0};  // steady clock; 0: none
    int timeoutMs_ = 0;
};

// True for a URL of a network source (a scheme other than file: or pipe:).
bool isNetworkUrl(const QString& path);
// `path` as messages show it: a URL loses its password.
QString displayName(const QString& path);
// The FFmpeg options that apply the wait and the RTSP transport ("tcp", "udp" or null for
// FFmpeg's choice) to opening `url`; adds to `options`.
void addNetworkOptions(const QString& url, const char* rtspTransport, int timeoutMs, AVDictionary** options);

// FFmpeg's text for an error code.
QString ffmpegErrorText(int code);

}  // namespace orvo
