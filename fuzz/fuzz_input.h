#pragma once
// Shared input shape of the fuzz targets: byte 0 selects options, the rest is split at
// the 4-byte marker "ORVO" into up to kMaxChunks payloads that one decoder sees in a
// row, so stream state (reference pictures, P-frames) is exercised.
#include <QByteArray>
#include <QLoggingCategory>
#include <cstdint>
#include <vector>

namespace orvo::fuzz {

constexpr int kMaxChunks = 4;

struct Input {
    uint8_t options = 0;
    std::vector<QByteArray> chunks;
};

inline Input split(const uint8_t* data, size_t size)
{
    Input in;
    if (size == 0)
        return in;
    in.options = data[0];
    const QByteArray rest(reinterpret_cast<const char*>(data + 1), int(size - 1));
    int from = 0;
    while (int(in.chunks.size()) < kMaxChunks - 1) {
        const int at = rest.indexOf("ORVO", from);
        if (at < 0)
            break;
        in.chunks.push_back(rest.mid(from, at - from));
        from = at + 4;
    }
    in.chunks.push_back(rest.mid(from));
    return in;
}

// Decoders write diagnostics on bad input; keep the fuzzer's output readable.
inline void silenceQtDebug()
{
    static const bool once = [] {
        QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\n*.info=false\n*.warning=false"));
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
        return true;
    }();
    (void)once;
}

}  // namespace orvo::fuzz
