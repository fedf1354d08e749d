#pragma once
// DecodingPath: which path a stream's pictures take, for a client to show (a "GPU" badge
// on a camera tile, say). Decoder::decodingPath() answers it for a synchronous decoder; the
// pooled decoders answer it on their owner thread and signal each change
// (decodingPathChanged).
#include "orvo/export.h"

#include <QMetaType>
#include <QString>

namespace orvo {

struct ORVO_EXPORT DecodingPath {
    enum class Engine {
        None,      // no format decoder yet (or it could not be opened)
        Software,  // the CPU
        Hardware,  // the GPU's video engine, through FFmpeg's hardware decoding
    };
    Engine engine = Engine::None;
    // The device type in FFmpeg's spelling ("cuda", "vaapi", ...) while on Hardware, and
    // the one that was asked for when a stream is on Software because of the reason below.
    QString deviceType;
    // Software although hardware decoding was asked for: why (no device, the stream's codec,
    // profile or size unsupported, the engine failed mid-stream, the device was lost).
    // Empty otherwise.
    QString reason;

    bool isHardware() const { return engine == Engine::Hardware; }
    // "none", "software", "hardware (cuda)", "software (hardware: <reason>)".
    QString toString() const;
    bool operator==(const DecodingPath& other) const
    {
        return engine == other.engine && deviceType == other.deviceType && reason == other.reason;
    }
    bool operator!=(const DecodingPath& other) const { return !(*this == other); }
};

}  // namespace orvo

Q_DECLARE_METATYPE(orvo::DecodingPath)
