#pragma once
// A real RTSP server for the tests: GStreamer's, run by tests/network/rtsp_server.py in a
// child process with Debian's own Python, on a free port of 127.0.0.1.
#include <QProcess>
#include <QString>
#include <QStringList>

namespace orvo::test {

class RtspServer {
public:
    // Empty when the server can run here; otherwise the one-line reason it cannot (the
    // GStreamer packages are missing).
    static QString missing();

    // Starts rtsp_server.py with `args` (codec and options) and waits until it listens.
    explicit RtspServer(const QStringList& args);
    ~RtspServer();
    RtspServer(const RtspServer&) = delete;
    RtspServer& operator=(const RtspServer&) = delete;

    bool isListening() const { return !url_.isEmpty(); }
    QString url() const { return url_; }
    // The server hangs with its connections open (a camera that stopped answering).
    void freeze();
    // The server is gone at once; the kernel closes its connections.
    void kill();

private:
    QProcess process_;
    QString url_;
};

}  // namespace orvo::test
