#pragma once
// The error code of a decoding step that threw: 3 when memory ran out, 4 for anything else
// (the codes that DecoderError reports). No exception crosses the library's interface, so
// every place that runs a decoder on a client's behalf reports a throw this way.
#include <QtGlobal>

namespace orvo {

constexpr quint32 kErrorOutOfMemory = 3;
constexpr quint32 kErrorException = 4;

// Call only inside a catch block: classifies the exception being handled.
//     try { ... } catch (...) { code = currentExceptionErrorCode(); }
quint32 currentExceptionErrorCode() noexcept;

}  // namespace orvo
