#include "orvo/encoder_error.h"

#include <QCoreApplication>

namespace orvo {

EncoderError ignoreEncoderError;

namespace {
const char* messageOf(EncoderError::ErrorCode code)
{
    switch (code) {
    case EncoderError::NoError: return QT_TRANSLATE_NOOP("EncoderError", "No error.");
    case EncoderError::NoSuitableOutputFormat:
        return QT_TRANSLATE_NOOP("EncoderError", "Could not find a suitable output format.");
    case EncoderError::MemoryAllocationError: return QT_TRANSLATE_NOOP("EncoderError", "Memory allocation error.");
    case EncoderError::NoCodecSpecified:
        return QT_TRANSLATE_NOOP("EncoderError", "Neither video nor audio codec specified.");
    case EncoderError::CouldNotAddStream: return QT_TRANSLATE_NOOP("EncoderError", "Could not add audio or video stream.");
    case EncoderError::InvalidOutputFormatParameters:
        return QT_TRANSLATE_NOOP("EncoderError", "Invalid output format parameters.");
    case EncoderError::CouldNotOpenCodecs:
        return QT_TRANSLATE_NOOP("EncoderError", "Neither video nor audio could be opened.");
    case EncoderError::CouldNotOpenFile: return QT_TRANSLATE_NOOP("EncoderError", "Could not open file for writing.");
    case EncoderError::CouldNotWriteHeader: return QT_TRANSLATE_NOOP("EncoderError", "Could not write header.");
    case EncoderError::AudioError: return QT_TRANSLATE_NOOP("EncoderError", "Audio error.");
    case EncoderError::AudioCouldNotBeOpened: return QT_TRANSLATE_NOOP("EncoderError", "Audio could not be opened.");
    }
    return QT_TRANSLATE_NOOP("EncoderError", "Unknown Error");
}
}  // namespace

std::string EncoderError::toString() const
{
    return tr(messageOf(errorId_)).toUtf8().toStdString();
}

QString EncoderError::tr(const char* text, const char* disambiguation, int n)
{
    return QCoreApplication::translate("EncoderError", text, disambiguation, n);
}

QString EncoderError::trUtf8(const char* text, const char* disambiguation, int n)
{
    return QCoreApplication::translate("EncoderError", text, disambiguation, n);
}

}  // namespace orvo
