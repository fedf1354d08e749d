#include "common/support.h"

#include "orvo/decoder_preferences.h"

#include <QFile>
#include <QMutex>
#include <QProcess>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <iterator>

namespace orvo::test {

QByteArray planeBytes(const VideoFrame& frame, Plane plane)
{
    const bool mapped = frame.isMapped();
    if (!mapped && !frame.map())
        return QByteArray();
    const int i = int(plane);
    const uchar* bits[] = {frame.bitsY(), frame.bitsU(), frame.bitsV(), frame.bitsA()};
    const unsigned bpl[] = {frame.bytesPerLineY(), frame.bytesPerLineU(), frame.bytesPerLineV(),
                            frame.bytesPerLineA()};
    const int w[] = {frame.widthY(), frame.widthU(), frame.widthV(), frame.widthA()};
    const int h[] = {frame.heightY(), frame.heightU(), frame.heightV(), frame.heightA()};
    QByteArray out;
    if (bits[i])
        for (int y = 0; y < h[i]; ++y)
            out.append(reinterpret_cast<const char*>(bits[i] + size_t(y) * bpl[i]), w[i]);
    if (!mapped)
        frame.unmap();
    return out;
}

QByteArray packYuv420p(const VideoFrame& frame)
{
    if (frame.isNull() || !frame.isValid())
        return QByteArray();
    return planeBytes(frame, Plane::Y) + planeBytes(frame, Plane::U) + planeBytes(frame, Plane::V);
}

int maxDiff(const QByteArray& a, const QByteArray& b)
{
    if (a.size() != b.size())
        return 1000;
    int worst = 0;
    for (int i = 0; i < a.size(); ++i)
        worst = std::max(worst, std::abs(int(uchar(a[i])) - int(uchar(b[i]))));
    return worst;
}

QByteArray runProgram(const QString& program, const QStringList& args, bool mustSucceed)
{
    QProcess p;
    p.start(program, args);
    const bool finished = p.waitForFinished(120000);
    if (!finished || (mustSucceed && (p.exitStatus() != QProcess::NormalExit || p.exitCode() != 0))) {
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

namespace {
using Prefs = DecoderPreferences;
// Every switch a test may change: how it is read and how it is set.
const std::pair<std::function<bool(Prefs*)>, void (Prefs::*)(bool)> kSwitches[] = {
    {&Prefs::isDecodeMJPEGThroughQImage, &Prefs::decodeMJPEGThroughQImage},
    {&Prefs::isUsedMxPEGNative, &Prefs::useMxPEGNative},
    {&Prefs::isLookForNALsH264, &Prefs::lookForNALsH264},
    {&Prefs::isRemoveLastExtraByteH264, &Prefs::removeLastExtraByteH264},
    {&Prefs::isRemoveDoubleStartCodesH264, &Prefs::removeDoubleStartCodesH264},
    {&Prefs::jpeg2000passthrough, &Prefs::setJpeg2000passthrough},
    {&Prefs::jpeg2000codestream, &Prefs::setJpeg2000codestream},
    {&Prefs::jpeg2000display_atoms, &Prefs::setJpeg2000display_atoms},
    {&Prefs::isZeroCopyDecoding, &Prefs::setZeroCopyDecoding},
    {&Prefs::useFFMPEGEncodeAvInterleavedWriteFrame, &Prefs::setUseFFMPEGEncodeAvInterleavedWriteFrame},
};
}  // namespace

PreferencesGuard::PreferencesGuard()
{
    for (size_t i = 0; i < std::size(kSwitches); ++i)
        saved_[i] = kSwitches[i].first(Prefs::instance());
    damaged_ = int(Prefs::instance()->damagedPictures());
}

PreferencesGuard::~PreferencesGuard()
{
    for (size_t i = 0; i < std::size(kSwitches); ++i)
        (Prefs::instance()->*kSwitches[i].second)(saved_[i]);
    Prefs::instance()->setDamagedPictures(DamagedPictures(damaged_));
}

namespace {
QMutex capturedMutex;
QStringList captured;
QtMessageHandler previousHandler = nullptr;

void capture(QtMsgType, const QMessageLogContext&, const QString& text)
{
    QMutexLocker lock(&capturedMutex);
    captured << text;
}
}  // namespace

MessageCapture::MessageCapture()
{
    QMutexLocker lock(&capturedMutex);
    captured.clear();
    previousHandler = qInstallMessageHandler(capture);
}

MessageCapture::~MessageCapture() { qInstallMessageHandler(previousHandler); }

QStringList MessageCapture::messages() const
{
    QMutexLocker lock(&capturedMutex);
    return captured;
}

}  // namespace orvo::test
