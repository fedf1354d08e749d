#pragma once
// The error record that opening an encoder fills in: a fixed code with a fixed,
// translatable message, plus free text from FFmpeg or the failing step.
#include "orvo/export.h"
#include <QString>
#include <string>

namespace orvo {

class ORVO_EXPORT EncoderError {
public:
    enum ErrorCode : int {
        NoError = 0,
        NoSuitableOutputFormat = 1,
        MemoryAllocationError = 2,
        NoCodecSpecified = 3,
        CouldNotAddStream = 4,
        InvalidOutputFormatParameters = 5,
        CouldNotOpenCodecs = 6,
        CouldNotOpenFile = 7,
        CouldNotWriteHeader = 8,
        AudioError = 900,
        AudioCouldNotBeOpened = 901,
    };

    EncoderError() = default;
    EncoderError(const EncoderError&) = default;
    EncoderError& operator=(const EncoderError&) = default;

    ErrorCode errorId() const { return errorId_; }
    void setErrorId(ErrorCode id) { errorId_ = id; }
    std::string additionalInfo() const { return additionalInfo_; }
    void setAdditionalInfo(const std::string& info) { additionalInfo_ = info; }
    bool hasError() const { return errorId_ != NoError; }

    // Clears the code only: the additional information of an earlier failure stays
    // readable after a reset.
    void reset() { errorId_ = NoError; }

    // The translated message of the code (context "EncoderError"), UTF-8. The additional
    // information is not part of it.
    std::string toString() const;

    static QString tr(const char* text, const char* disambiguation = nullptr, int n = -1);
    static QString trUtf8(const char* text, const char* disambiguation = nullptr, int n = -1);

private:
    ErrorCode errorId_ = NoError;
    std::string additionalInfo_;
};

// For callers that do not care why an open failed: pass it where an EncoderError& is
// required. The library neither reads nor writes it, so encoders on several threads may
// share it.
extern ORVO_EXPORT EncoderError ignoreEncoderError;

}  // namespace orvo
