#pragma once
// The error record carried by the `error` signal of the asynchronous decoders.
//
// A plain value: copied into queued signals. Codes produced by this library are
// 1 (a decoder refused or failed an image), 3 (memory exhausted while decoding) and
// 4 (anything else thrown while decoding); other codes only come from callers.
#include "orvo/export.h"
#include <QMetaType>
#include <QString>
#include <QtGlobal>

namespace orvo {

class ORVO_EXPORT ErrorInterface {
public:
    virtual ~ErrorInterface() = default;
    virtual QString message() const = 0;
    virtual quint32 code() const = 0;
    virtual void clear() = 0;
    virtual bool isError() const = 0;
};

class ORVO_EXPORT DecoderError : public ErrorInterface {
public:
    DecoderError() = default;
    explicit DecoderError(quint32 code) : code_(code) {}
    // `imageId`: the id of the image that failed, for clients with many images in flight.
    DecoderError(quint32 code, quint64 imageId) : code_(code), imageId_(imageId) {}
    // `reason`: why, in words (FFmpeg's own where it gives one); not translated.
    DecoderError(quint32 code, quint64 imageId, const QString& reason)
        : code_(code), imageId_(imageId), reason_(reason)
    {
    }
    DecoderError(const DecoderError&) = default;
    DecoderError& operator=(const DecoderError&) = default;
    ~DecoderError() override;

    // Translated through the "DecoderError" context, so applications can localise it.
    QString message() const override;
    quint32 code() const override { return code_; }
    void clear() override { code_ = 0; }
    bool isError() const override { return code_ != 0; }
    // The id of the image that failed; 0 where no image applies.
    quint64 imageId() const { return imageId_; }
    // Why the image failed or gave no picture; empty where nothing more is known.
    QString reason() const { return reason_; }

private:
    quint32 code_ = 0;
    quint64 imageId_ = 0;
    QString reason_;
};

// Registers orvo::VideoFrame and DecoderError (under both spellings that signal
// signatures use) with Qt's meta-type system, once per process, so that queued
// connections can carry them. The decoders call it on construction; calling it again
// is cheap.
ORVO_EXPORT void registerAsyncDecoderMetaTypes();

}  // namespace orvo

Q_DECLARE_METATYPE(orvo::DecoderError)
