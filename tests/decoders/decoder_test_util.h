#pragma once
// Small helpers shared by the decoder tests.
#include "orvo/decoder_preferences.h"
#include "orvo/log.h"

#include <QString>
#include <QStringList>
#include <QtGlobal>
#include <vector>

namespace orvo::test {

// Restores the preferences a test changes (the instance cannot be copied aside).
class PreferencesGuard {
public:
    PreferencesGuard()
    {
        DecoderPreferences* p = DecoderPreferences::instance();
        mjpegQImage_ = p->isDecodeMJPEGThroughQImage();
        mxpegNative_ = p->isUsedMxPEGNative();
        nals_ = p->isLookForNALsH264();
        lastByte_ = p->isRemoveLastExtraByteH264();
        doubleStart_ = p->isRemoveDoubleStartCodesH264();
        passthrough_ = p->jpeg2000passthrough();
        codestream_ = p->jpeg2000codestream();
        atoms_ = p->jpeg2000display_atoms();
        zeroCopy_ = p->isZeroCopyDecoding();
    }
    ~PreferencesGuard()
    {
        DecoderPreferences* p = DecoderPreferences::instance();
        p->decodeMJPEGThroughQImage(mjpegQImage_);
        p->useMxPEGNative(mxpegNative_);
        p->lookForNALsH264(nals_);
        p->removeLastExtraByteH264(lastByte_);
        p->removeDoubleStartCodesH264(doubleStart_);
        p->setJpeg2000passthrough(passthrough_);
        p->setJpeg2000codestream(codestream_);
        p->setJpeg2000display_atoms(atoms_);
        p->setZeroCopyDecoding(zeroCopy_);
    }

private:
    bool mjpegQImage_, mxpegNative_, nals_, lastByte_, doubleStart_, passthrough_, codestream_, atoms_, zeroCopy_;
};

// Collects Qt debug-stream lines while alive.
class QtMessageCapture {
public:
    QtMessageCapture() { previous_ = qInstallMessageHandler(&QtMessageCapture::handler); lines().clear(); }
    ~QtMessageCapture() { qInstallMessageHandler(previous_); }
    static QStringList& lines()
    {
        static QStringList captured;
        return captured;
    }

private:
    static void handler(QtMsgType, const QMessageLogContext&, const QString& message) { lines() << message; }
    QtMessageHandler previous_;
};

// Collects olog items while alive.
class LogCapture {
public:
    LogCapture()
    {
        LogManager::instance().setSink([this](const LogItem& item) {
            items.push_back({item.level, QString::fromLatin1(item.function), item.message});
        });
    }
    ~LogCapture() { LogManager::instance().setSink({}); }
    struct Entry {
        unsigned level;
        QString function;
        QString message;
    };
    std::vector<Entry> items;
};

}  // namespace orvo::test
