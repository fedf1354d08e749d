#pragma once
// Helpers shared by the camera-codec tests: reference files, raw planes, captured messages.
#include "common/test_streams.h"
#include "orvo/video_frame.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <vector>

namespace camera_test {

// A path under the test data directory.
QString dataPath(const QString& name);

// Runs `program` with `args`; its standard output, or an empty array (and a test failure)
// when it fails.
QByteArray run(const QString& program, const QStringList& args);

QByteArray readFile(const QString& path);

// A binary PGM (P5) or PPM (P6) picture with 8-bit samples.
struct Pnm {
    int width = 0;
    int height = 0;
    int channels = 0;  // 1 grey, 3 RGB
    QByteArray pixels;
    bool valid() const { return width > 0 && pixels.size() == width * height * channels; }
};
Pnm readPnm(const QString& path);

// One 8-bit plane, packed.
struct Plane {
    int width = 0;
    int height = 0;
    std::vector<int> samples;
    int at(int x, int y) const { return samples[size_t(y) * size_t(width) + size_t(x)]; }
};

// The Y, U or V plane of a mapped or mappable frame, packed (rows read with the frame's own
// bytes per line).
Plane framePlane(const orvo::VideoFrame& frame, int index);

// Largest absolute difference of two planes; -1 when their sizes differ.
int maxDiff(const Plane& a, const Plane& b);

// Collects Qt debug messages while alive.
class MessageCatcher {
public:
    MessageCatcher();
    ~MessageCatcher();
    QStringList messages() const;
    bool contains(const QString& text) const;
};

}  // namespace camera_test
