#include "network/rtsp_server.h"

#include <QFileInfo>
#include <csignal>

namespace orvo::test {
namespace {

// The GStreamer bindings are Debian's: another python3 may come first on the path.
const QString kPython = QStringLiteral("/usr/bin/python3");
const QString kScript = QStringLiteral(ORVO_SOURCE_DIR "/tests/network/rtsp_server.py");

}  // namespace

QString RtspServer::missing()
{
    static const QString reason = [] {
        if (!QFileInfo(kPython).isExecutable())
            return QStringLiteral("no /usr/bin/python3");
        QProcess check;
        check.start(kPython, {kScript, QStringLiteral("--check")});
        if (!check.waitForFinished(30000) || check.exitStatus() != QProcess::NormalExit || check.exitCode() != 0) {
            const QStringList lines = QString::fromUtf8(check.readAllStandardError()).trimmed().split('\n');
            return QStringLiteral("GStreamer RTSP server not installed (") + lines.last() + ')';
        }
        return QString();
    }();
    return reason;
}

RtspServer::RtspServer(const QStringList& args)
{
    process_.start(kPython, QStringList{kScript} + args);
    // The first line is the port, once the server listens.
    while (process_.waitForReadyRead(10000) && !process_.canReadLine()) {
    }
    const int port = process_.canReadLine() ? process_.readLine().trimmed().toInt() : 0;
    if (port > 0)
        url_ = QStringLiteral("rtsp://127.0.0.1:%1/cam").arg(port);
}

RtspServer::~RtspServer()
{
    if (process_.state() != QProcess::NotRunning) {
        process_.kill();
        process_.waitForFinished(10000);
    }
}

void RtspServer::freeze()
{
    ::kill(pid_t(process_.processId()), SIGSTOP);
}

void RtspServer::kill()
{
    process_.kill();
    process_.waitForFinished(10000);
}

}  // namespace orvo::test
