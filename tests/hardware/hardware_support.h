#pragma once
// Helpers of the hardware decoding suites: the settings restored after each test, the clips,
// and a decode that records how each image was answered.
#include "common/test_streams.h"
#include "orvo/decoder.h"
#include "orvo/decoder_preferences.h"
#include "orvo/hardware_testing.h"
#include "orvo/log.h"

#include <QSize>
#include <QStringList>
#include <functional>
#include <ostream>
#include <map>
#include <mutex>
#include <string>
#include <vector>

// Readable texts in test messages (found by argument lookup, so in QString's namespace).
inline void PrintTo(const QString& text, std::ostream* os) { *os << '"' << text.toStdString() << '"'; }

namespace orvo::test {

// Restores the hardware preferences and clears every injected failure, the emulation and the
// memory of failed devices and logged causes, before and after a test.
class HardwareGuard {
public:
    HardwareGuard();
    ~HardwareGuard();
    HardwareGuard(const HardwareGuard&) = delete;
    HardwareGuard& operator=(const HardwareGuard&) = delete;
    // Sets the mode (device type "cuda", default device) and the emulated engine; the DCT
    // formats take the engine too unless `approximate` is false.
    static void use(HardwareDecoding mode, bool emulated, bool approximate = true);

private:
    HardwareDecoding mode_;
    bool approximate_;
    std::string type_;
    std::string name_;
};

// The library's log lines while alive.
class LogLines {
public:
    LogLines();
    ~LogLines();
    int count(const QString& text) const;
    QStringList lines() const;

private:
    mutable std::mutex mutex_;
    QStringList lines_;
};

// A clip of the suites: its images and how they are sent.
struct HwClip {
    QString name;
    quint8 code;
    std::vector<Image> images;
};
HwClip hwClip(const QString& name);  // see hardware_support.cpp for the list
// The clips of the suites; `gpu` adds the 1080p ones (too slow for every run in software).
QStringList hwClipNames(bool gpu = false);

// How a run through one Decoder answered the images.
struct Answers {
    std::map<quint64, QByteArray> pictures;  // packed yuv420p by image id
    std::map<quint64, QSize> sizes;          // their sizes
    std::vector<QByteArray> inOrder;         // the same, in output order
    std::map<quint64, bool> damaged;
    std::map<quint64, QString> errors;       // failed or ended without a picture, with the reason
    std::map<quint64, int> answerCount;      // pictures and errors together
    std::vector<DecodingPath> paths;         // after each image
    QString firstFailure;
};
// Decodes `images` through `decoder` and, with `drain`, drains it; `before(i)` runs before
// image i.
void decodeAll(Decoder& decoder, const std::vector<Image>& images, Answers& answers,
               const std::function<void(size_t)>& before = {}, bool drain = true);
// `bound`: the decoder's largest output size.
Answers decodeAll(const std::vector<Image>& images, const std::function<void(size_t)>& before = {},
                  const QSize& bound = {});
// The same images decoded in software only (the preferences are restored after).
Answers softwareDecode(const std::vector<Image>& images, const QSize& bound = {});
// Peak signal-to-noise ratio of two pictures of the same size, in dB (99 where equal, 0
// where the sizes differ).
double psnr(const QByteArray& a, const QByteArray& b);
// Adds a failure for every image of `images` not answered exactly once.
void expectEachAnsweredOnce(const std::vector<Image>& images, const Answers& answers);

}  // namespace orvo::test
