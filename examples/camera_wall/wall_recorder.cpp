#include "wall_recorder.h"

#include <orvo/av_encoder.h>

#include <QFile>
#include <cmath>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace {
constexpr int kSampleRate = 48000;
constexpr int kFps = 25;
}  // namespace

bool WallRecorder::open(const QString& path, int width, int height, QString* error)
{
    orvo::EncoderError err;
    static int preset = 1;  // non-null: the configured preset file applies
    if (!encoder_.open(1, QFile::encodeName(path).toStdString(), "mp4", AV_CODEC_ID_H264, width, height, 1, 1,
                       4000000, 0, kFps, 1, 2 * kFps, AV_CODEC_ID_AAC, 128000, kSampleRate, 1, &preset, err)) {
        if (error)
            *error = QString::fromStdString(err.toString() + " " + err.additionalInfo());
        return false;
    }
    open_ = true;
    return true;
}

bool WallRecorder::addPicture(const orvo::VideoFrame& mosaic)
{
    if (!open_ || !mosaic.map())
        return false;
    const int written = encoder_.encode(mosaic.bitsY(), mosaic.bitsU(), mosaic.bitsV(), mosaic.bytesPerLineY(),
                                        mosaic.bytesPerLineU(), mosaic.bytesPerLineV(), nullptr, 0);
    mosaic.unmap();
    ++pictures_;
    // A 440 Hz tone that beeps once a second, for exactly one picture's duration.
    const int n = kSampleRate / kFps;
    tone_.resize(size_t(n));
    for (int i = 0; i < n; ++i, ++toneSamples_) {
        const double t = double(toneSamples_) / kSampleRate;
        const bool beep = std::fmod(t, 1.0) < 0.15;
        tone_[size_t(i)] = short((beep ? 9000 : 2500) * std::sin(2 * M_PI * 440 * t));
    }
    // Encode whole frames while audio is behind the video; the rest waits in the buffer.
    audio_.enqueue(encoder_, tone_.data(), unsigned(n), false);
    return written >= 0;
}

void WallRecorder::close()
{
    if (!open_)
        return;
    audio_.flush_to_sync(encoder_, false);
    encoder_.sync_audio_to_video_with_silence(true);
    encoder_.close();
    open_ = false;
}
