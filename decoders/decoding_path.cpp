#include "orvo/decoding_path.h"

namespace orvo {

QString DecodingPath::toString() const
{
    switch (engine) {
    case Engine::None: return QStringLiteral("none");
    case Engine::Hardware: return QStringLiteral("hardware (%1)").arg(deviceType);
    case Engine::Software: break;
    }
    return reason.isEmpty() ? QStringLiteral("software") : QStringLiteral("software (hardware: %1)").arg(reason);
}

}  // namespace orvo
