#include "orvo/decoder_error.h"
#include "orvo/decoding_path.h"

#include "orvo/video_frame.h"

#include <QCoreApplication>

namespace orvo {

DecoderError::~DecoderError() = default;

QString DecoderError::message() const
{
    switch (code_) {
    case 0:
        return QCoreApplication::translate("DecoderError", "No error.");
    case 1:
        return QCoreApplication::translate("DecoderError", "Decoding failed.");
    case 2:
        return QCoreApplication::translate("DecoderError", "Connection error");
    case 3:
        return QCoreApplication::translate("DecoderError", "Memory allocation error");
    case 4:
        return QCoreApplication::translate("DecoderError", "Unknown exception");
    default:
        return QCoreApplication::translate("DecoderError", "Decoder error %1").arg(code_);
    }
}

void registerAsyncDecoderMetaTypes()
{
    // Signal signatures name the error type without its namespace ("error(DecoderError)"),
    // so queued connections look it up under that spelling too.
    static const bool registered = [] {
        qRegisterMetaType<orvo::VideoFrame>();
        qRegisterMetaType<orvo::DecoderError>();
        qRegisterMetaType<orvo::DecoderError>("DecoderError");
        qRegisterMetaType<orvo::DecodingPath>();
        return true;
    }();
    Q_UNUSED(registered);
}

}  // namespace orvo
