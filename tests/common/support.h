#pragma once
// Helpers every suite shares: packed planes, child processes, captured output and messages,
// and a guard that restores the process-wide decoder preferences.
#include "orvo/video_frame.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <gtest/gtest.h>
#include <string>
#include <utility>

namespace orvo::test {

// One plane of a frame as packed rows (no padding); maps and unmaps when the frame is not
// mapped. Empty when the frame has no such plane.
enum class Plane { Y, U, V, A };
QByteArray planeBytes(const VideoFrame& frame, Plane plane);

// Y, U and V packed one after the other (a yuv420p picture for 4:2:0 frames).
QByteArray packYuv420p(const VideoFrame& frame);

// Largest absolute difference of two byte arrays; 1000 (more than any sample can differ)
// when their sizes differ.
int maxDiff(const QByteArray& a, const QByteArray& b);

// Standard output of `program args`; a test failure (and an empty array) when it cannot run
// or, with mustSucceed, when it exits with an error.
QByteArray runProgram(const QString& program, const QStringList& args, bool mustSucceed = true);
QByteArray readFile(const QString& path);

// A payload through a decoder's decode(data, size, frame, iframe); the bytes are copied so
// that a decoder may pad or repair them in place.
template <typename D>
bool decodeBytes(D& decoder, QByteArray payload, VideoFrame& frame, bool iframe = false)
{
    return decoder.decode(reinterpret_cast<unsigned char*>(payload.data()), payload.size(), frame, iframe);
}

// Restores every decoder preference a test may change.
class PreferencesGuard {
public:
    PreferencesGuard();
    ~PreferencesGuard();

private:
    bool saved_[10];
    int damaged_;
};

// Collects Qt debug messages while alive.
class MessageCapture {
public:
    MessageCapture();
    ~MessageCapture();
    QStringList messages() const;
    bool contains(const QString& text) const { return messages().contains(text); }
};

// Captures what is written to file descriptor 1 or 2 (printf and std::cout alike) between
// construction and text(); one capture per descriptor at a time.
class CaptureFd {
public:
    explicit CaptureFd(int fd) : fd_(fd)
    {
        fd == 1 ? testing::internal::CaptureStdout() : testing::internal::CaptureStderr();
    }
    ~CaptureFd() { text(); }
    std::string text()
    {
        if (std::exchange(done_, true))
            return std::string();
        return fd_ == 1 ? testing::internal::GetCapturedStdout() : testing::internal::GetCapturedStderr();
    }

private:
    int fd_;
    bool done_ = false;
};

}  // namespace orvo::test
