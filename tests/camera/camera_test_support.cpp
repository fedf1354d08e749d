#include "camera/camera_test_support.h"

#include <QFile>
#include <QMutex>
#include <QProcess>
#include <gtest/gtest.h>

namespace camera_test {

QString dataPath(const QString& name) { return orvo::test::dataDir() + QLatin1Char('/') + name; }

QByteArray run(const QString& program, const QStringList& args)
{
    QProcess p;
    p.start(program, args);
    if (!p.waitForFinished(120000) || p.exitStatus() != QProcess::NormalExit || p.exitCode() != 0) {
        ADD_FAILURE() << program.toStdString() << " " << args.join(' ').toStdString() << " failed: "
                      << p.readAllStandardError().toStdString();
        return QByteArray();
    }
    return p.readAllStandardOutput();
}

QByteArray readFile(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) {
        ADD_FAILURE() << "cannot read " << path.toStdString();
        return QByteArray();
    }
    return f.readAll();
}

Pnm readPnm(const QString& path)
{
    Pnm pnm;
    const QByteArray data = readFile(path);
    int pos = 0;
    auto token = [&]() {
        QByteArray t;
        while (pos < data.size()) {
            const char c = data[pos];
            if (c == '#') {
                while (pos < data.size() && data[pos] != '\n')
                    ++pos;
            } else if (c == ' ' || c == '\n' || c == '\r' || c == '\t') {
                if (!t.isEmpty())
                    break;
                ++pos;
            } else {
                t += c;
                ++pos;
            }
        }
        return t;
    };
    const QByteArray magic = token();
    if (magic != "P5" && magic != "P6")
        return pnm;
    const int w = token().toInt(), h = token().toInt(), maxval = token().toInt();
    ++pos;  // the single blank after the header
    if (maxval != 255)
        return pnm;
    pnm.width = w;
    pnm.height = h;
    pnm.channels = magic == "P5" ? 1 : 3;
    pnm.pixels = data.mid(pos);
    return pnm;
}

Plane framePlane(const orvo::VideoFrame& frame, int index)
{
    Plane p;
    const bool wasMapped = frame.isMapped();
    if (!wasMapped && !frame.map())
        return p;
    const uchar* bits = index == 0 ? frame.bitsY() : index == 1 ? frame.bitsU() : frame.bitsV();
    const int bpl = int(index == 0 ? frame.bytesPerLineY() : index == 1 ? frame.bytesPerLineU() : frame.bytesPerLineV());
    p.width = index == 0 ? frame.widthY() : index == 1 ? frame.widthU() : frame.widthV();
    p.height = index == 0 ? frame.heightY() : index == 1 ? frame.heightU() : frame.heightV();
    p.samples.resize(size_t(p.width) * size_t(p.height));
    for (int y = 0; y < p.height; ++y)
        for (int x = 0; x < p.width; ++x)
            p.samples[size_t(y) * p.width + x] = bits[size_t(y) * bpl + x];
    if (!wasMapped)
        frame.unmap();
    return p;
}

int maxDiff(const Plane& a, const Plane& b)
{
    if (a.width != b.width || a.height != b.height || a.samples.size() != b.samples.size())
        return -1;
    int worst = 0;
    for (size_t i = 0; i < a.samples.size(); ++i)
        worst = std::max(worst, std::abs(a.samples[i] - b.samples[i]));
    return worst;
}

namespace {
QMutex catcherMutex;
QStringList caught;
QtMessageHandler previousHandler = nullptr;

void catchMessage(QtMsgType, const QMessageLogContext&, const QString& text)
{
    QMutexLocker lock(&catcherMutex);
    caught << text;
}
}  // namespace

MessageCatcher::MessageCatcher()
{
    QMutexLocker lock(&catcherMutex);
    caught.clear();
    previousHandler = qInstallMessageHandler(catchMessage);
}

MessageCatcher::~MessageCatcher() { qInstallMessageHandler(previousHandler); }

QStringList MessageCatcher::messages() const
{
    QMutexLocker lock(&catcherMutex);
    return caught;
}

bool MessageCatcher::contains(const QString& text) const
{
    for (const QString& m : messages())
        if (m == text)
            return true;
    return false;
}

}  // namespace camera_test
