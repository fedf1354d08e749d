#pragma once
// Records the mosaic as H.264 with an AAC tone, keeping the audio level with the video
// through AudioBufferEncoder and padding with silence at the end.
#include <orvo/audio_buffer_encoder.h>
#include <orvo/encoder.h>
#include <orvo/video_frame.h>

#include <QString>
#include <vector>

class WallRecorder {
public:
    bool open(const QString& path, int width, int height, QString* error);
    // Encodes one mosaic picture and the tone for its duration (1/25 s).
    bool addPicture(const orvo::VideoFrame& mosaic);
    void close();
    int pictures() const { return pictures_; }

private:
    orvo::Encoder encoder_{1};
    orvo::AudioBufferEncoder audio_;
    std::vector<short> tone_;
    qint64 toneSamples_ = 0;
    int pictures_ = 0;
    bool open_ = false;
};
