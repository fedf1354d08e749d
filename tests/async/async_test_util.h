#pragma once
// Helpers of the asynchronous-decoding tests: bounded event-loop waits, signal
// recorders and small real test streams.
#include "async/decode_scheduler.h"
#include "common/test_streams.h"
#include "orvo/async_decoder_interfaces.h"
#include "orvo/decoder.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QThreadPool>
#include <QTimer>
#include <functional>
#include <vector>

namespace orvo::test {

// Runs the event loop for `ms` milliseconds.
inline void spin(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

// Runs the event loop until `done()` or `timeoutMs`; returns done().
inline bool waitUntil(const std::function<bool()>& done, int timeoutMs = 30000)
{
    QElapsedTimer timer;
    timer.start();
    while (!done() && timer.elapsed() <= timeoutMs)
        spin(2);
    return done();
}

// True once no stream holds or waits for a pool thread (a run gives its permit back just
// after its last result is handed over).
inline bool poolGoesIdle()
{
    // No permit held, no stream waiting, and no pool thread still inside a run: a run gives
    // its permit back before it lets go of its stream, whose decoder (and a hardware device
    // it holds) may go with that last reference.
    const auto scheduler = DecodeScheduler::instance();
    return waitUntil(
        [&] {
            return scheduler->inFlight() == 0 && scheduler->scheduledCount() == 0 &&
                   QThreadPool::globalInstance()->activeThreadCount() == 0;
        },
        5000);
}

// Records what one decoder object emits.
struct Recorder {
    std::vector<VideoFrame> frames;
    std::vector<quint32> errors;
    std::vector<quint64> errorIds;
    QObject context;
    std::function<void(const VideoFrame&)> onFrame;

    void attach(DecoderInterfaceSignals* source)
    {
        QObject::connect(source, &DecoderInterfaceSignals::frameDecoded, &context, [this](const VideoFrame& f) {
            frames.push_back(f);
            if (onFrame)
                onFrame(f);
        });
        QObject::connect(source, &DecoderInterfaceSignals::error, &context, [this](DecoderError e) {
            errors.push_back(e.code());
            errorIds.push_back(e.imageId());
        });
    }
    std::vector<quint64> ids() const
    {
        std::vector<quint64> out;
        for (const auto& f : frames)
            out.push_back(f.id());
        return out;
    }
};

// The ids first..last, as Recorder::ids() lists them.
inline std::vector<quint64> idRange(quint64 first, quint64 last)
{
    std::vector<quint64> out;
    for (quint64 id = first; id <= last; ++id)
        out.push_back(id);
    return out;
}

// A small H.264 clip (176x144) as cameras send it: no B-frames, an IDR every `gop` pictures.
inline QString h264Clip(int frames, int gop)
{
    return ffmpegFile(QString::asprintf("async_h264_%d_g%d.mp4", frames, gop),
                      QString::asprintf("-f lavfi -i testsrc2=size=176x144:rate=25 -frames:v %d -c:v libx264 -preset "
                                        "veryfast -tune zerolatency -bf 0 -g %d -keyint_min %d -sc_threshold 0 "
                                        "-pix_fmt yuv420p",
                                        frames, gop, gop));
}

// A short-form raw YUV payload (format 'y') of a w x h picture whose bytes follow `seed`.
inline QByteArray rawYuv(int w, int h, int seed)
{
    QByteArray p;
    p.append(char(w >> 8)).append(char(w & 0xff)).append(char(h >> 8)).append(char(h & 0xff));
    for (int i = 0; i < w * h * 3 / 2; ++i)
        p.append(char((i * 7 + seed * 13) & 0xff));
    return p;
}

// Synchronous reference decode of a whole image sequence through one Decoder, packed.
inline std::vector<QByteArray> syncDecode(const std::vector<Image>& images)
{
    std::vector<QByteArray> out;
    for (const VideoFrame& frame : decodeImages(images))
        out.push_back(packYuv420p(frame));
    return out;
}

}  // namespace orvo::test
