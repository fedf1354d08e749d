#pragma once
// Camera streams for the wall: a name, a format code and the stream cut into camera
// images (orvo::Image with format code, id, time and I-frame flag).
#include <orvo/image.h>

#include <QString>
#include <vector>

struct CameraStream {
    QString name;
    quint8 code = 0;
    int width = 0;
    int height = 0;
    std::vector<orvo::Image> images;
};

// Synthetic stream number `index`: an FFmpeg test pattern encoded on the spot with the
// library's own Encoder (codec and size depend on the index), then cut into images.
// The encoded elementary stream is kept under `workDir`. Empty images on failure.
CameraStream makeSyntheticStream(int index, int frames, const QString& workDir);

// A real media file demuxed with libavformat into camera images (H.264/H.265 as Annex B).
CameraStream loadFileStream(const QString& path, int maxFrames);
