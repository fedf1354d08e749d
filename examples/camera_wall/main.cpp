// camera_wall: what the library is for, in one program. Many camera streams are decoded at
// once on the thread pool, composed into a mosaic with labels, and recorded with sound.
//
//   camera_wall [--streams N] [--seconds S] [--input FILE...] [--out DIR]
//
// Without --input it makes its own streams: FFmpeg test patterns encoded with the
// library's Encoder (H.264, Motion JPEG, MPEG-4, MPEG-2, MxPEG) and fed in real time.
#include "camera_stream.h"
#include "wall_compositor.h"
#include "wall_recorder.h"

#include <orvo/av_encoder.h>
#include <orvo/concurrent_decoder.h>
#include <orvo/decoder_error.h>

#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QTextStream>
#include <QTimer>
#include <cmath>
#include <cstdio>
#include <memory>
#include <unistd.h>

namespace {

constexpr int kTickMs = 40;  // 25 pictures per second
constexpr int kTileW = 320, kTileH = 180;

struct Lane {
    CameraStream stream;
    std::unique_ptr<orvo::ConcurrentDecoder> decoder;
    orvo::VideoFrame latest;
    size_t fed = 0;
    quint64 decoded = 0;
    quint64 errors = 0;
};

void progress(double done, double seconds, quint64 frames, quint64 pictures, double elapsed)
{
    if (!isatty(fileno(stdout)))
        return;
    const int width = 30, filled = int(std::round(done * width));
    std::printf("\r[%s%s] %3d%%  %5.1f s  decode %6.1f fps  record %5.1f fps ", std::string(size_t(filled), '#').c_str(),
                std::string(size_t(width - filled), '.').c_str(), int(done * 100), seconds,
                elapsed > 0 ? frames / elapsed : 0.0, elapsed > 0 ? pictures / elapsed : 0.0);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");  // labels need fonts, not a screen
    QGuiApplication app(argc, argv);
    QCommandLineParser cli;
    cli.setApplicationDescription(QStringLiteral(
        "Decodes many camera streams at once, composes them into a 4x4 mosaic and records it with sound."));
    cli.addHelpOption();
    cli.addOption({QStringLiteral("streams"), QStringLiteral("Number of camera streams (1-16)."), QStringLiteral("N"),
                   QStringLiteral("16")});
    cli.addOption({QStringLiteral("seconds"), QStringLiteral("Length of the recording."), QStringLiteral("S"),
                   QStringLiteral("6")});
    cli.addOption({QStringLiteral("out"), QStringLiteral("Output directory."), QStringLiteral("DIR"),
                   QStringLiteral("out")});
    cli.addOption({QStringLiteral("input"), QStringLiteral("Real media file as a camera (repeatable)."),
                   QStringLiteral("FILE")});
    cli.addPositionalArgument(QStringLiteral("files"), QStringLiteral("More --input files."), QStringLiteral("[FILE...]"));
    cli.process(app);

    const int seconds = std::max(1, cli.value(QStringLiteral("seconds")).toInt());
    const int ticks = seconds * 1000 / kTickMs;
    const QString outDir = cli.value(QStringLiteral("out"));
    QDir().mkpath(outDir);
    QStringList inputs = cli.values(QStringLiteral("input")) + cli.positionalArguments();
    const int streams = std::clamp(inputs.isEmpty() ? cli.value(QStringLiteral("streams")).toInt() : int(inputs.size()), 1, 16);

    // Synthetic streams are encoded with ultrafast x264 settings so preparing them is quick.
    const QString preset = outDir + QStringLiteral("/streams/camera.ffpreset");
    QDir().mkpath(outDir + QStringLiteral("/streams"));
    {
        QFile f(preset);
        if (f.open(QIODevice::WriteOnly | QIODevice::Truncate))
            f.write("# x264 settings of a typical network camera\npreset=ultrafast\ntune=zerolatency\n");
    }
    orvo::AVEncoder::setPresetFilePath(QFile::encodeName(preset).toStdString());

    std::printf("camera_wall: preparing %d camera stream%s of %d s ...\n", streams, streams == 1 ? "" : "s", seconds);
    std::fflush(stdout);
    std::vector<Lane> lanes(static_cast<size_t>(streams));
    std::vector<QString> names;
    for (int i = 0; i < streams; ++i) {
        Lane& lane = lanes[size_t(i)];
        lane.stream = inputs.isEmpty() ? makeSyntheticStream(i, ticks, outDir + QStringLiteral("/streams"))
                                       : loadFileStream(inputs[i], ticks);
        if (lane.stream.images.empty())
            std::fprintf(stderr, "  %s: no images (skipped)\n", qPrintable(lane.stream.name));
        names.push_back(lane.stream.name);
        lane.decoder = std::make_unique<orvo::ConcurrentDecoder>(nullptr);
        lane.decoder->clearInputQueueOnIFrames();  // a late tile catches up at its next I-frame
        QObject::connect(lane.decoder.get(), &orvo::ConcurrentDecoder::frameDecoded, [&lane](const orvo::VideoFrame& f) {
            lane.latest = f;
            ++lane.decoded;
        });
        QObject::connect(lane.decoder->getInterface(), &orvo::DecoderInterfaceSignals::error,
                         [&lane](const orvo::DecoderError&) { ++lane.errors; });
    }

    const int columns = streams <= 1 ? 1 : streams <= 4 ? 2 : streams <= 9 ? 3 : 4;
    const int rows = (streams + columns - 1) / columns;
    WallCompositor wall(columns, rows, kTileW, kTileH, names);
    WallRecorder recorder;
    const QString mp4 = outDir + QStringLiteral("/camera_wall.mp4");
    const QString png = outDir + QStringLiteral("/camera_wall.png");
    QString error;
    if (!recorder.open(mp4, wall.width(), wall.height(), &error)) {
        std::fprintf(stderr, "cannot record %s: %s\n", qPrintable(mp4), qPrintable(error));
        return 1;
    }

    QElapsedTimer clock;
    clock.start();
    int fedTicks = 0, recordedTicks = 0;
    QElapsedTimer drain;
    QTimer timer;
    timer.setInterval(5);
    QObject::connect(&timer, &QTimer::timeout, [&] {
        const int due = std::min(ticks, int(clock.elapsed() / kTickMs) + 1);
        for (; fedTicks < due; ++fedTicks)
            for (Lane& lane : lanes)
                if (lane.fed < lane.stream.images.size())
                    lane.decoder->decode(lane.stream.images[lane.fed++]);
        if (recordedTicks < fedTicks) {
            for (int i = 0; i < int(lanes.size()); ++i)
                wall.drawTile(i, lanes[size_t(i)].latest);
            while (recordedTicks < fedTicks) {  // a late timer repeats the picture, keeping time
                recorder.addPicture(wall.mosaic());
                ++recordedTicks;
            }
        }
        quint64 frames = 0;
        for (const Lane& lane : lanes)
            frames += lane.decoded;
        static qint64 lastPrint = -1000;
        if (clock.elapsed() - lastPrint >= 250) {
            lastPrint = clock.elapsed();
            progress(double(recordedTicks) / ticks, clock.elapsed() / 1000.0, frames, quint64(recorder.pictures()),
                     clock.elapsed() / 1000.0);
        }
        if (recordedTicks < ticks)
            return;
        if (!drain.isValid()) {
            drain.start();
            // End of the streams: the pictures decoders still hold back come out too.
            for (Lane& lane : lanes)
                lane.decoder->drain();
        }
        bool busy = false;
        for (const Lane& lane : lanes)
            busy = busy || lane.decoder->isBusy();
        if (!busy || drain.elapsed() > 10000)
            app.quit();
    });
    timer.start();
    app.exec();
    const double elapsed = clock.elapsed() / 1000.0;

    for (int i = 0; i < int(lanes.size()); ++i)
        wall.drawTile(i, lanes[size_t(i)].latest);
    recorder.close();
    wall.mosaic()
        .convertToQImage(orvo::VideoFrame::Format_RGB32, 0, 0, -1, -1, 0, 0, 0, 0, 0, 0)
        .save(png);

    quint64 fed = 0, decoded = 0, errors = 0;
    for (Lane& lane : lanes) {
        fed += lane.fed;
        decoded += lane.decoded;
        errors += lane.errors;
    }
    for (Lane& lane : lanes)
        lane.decoder.reset();  // waits for any job still running
    const quint64 dropped = fed >= decoded + errors ? fed - decoded - errors : 0;
    std::printf("\n\ncamera_wall summary\n");
    std::printf("  streams            %d (%d x %d mosaic of %d x %d tiles)\n", streams, columns, rows, kTileW, kTileH);
    std::printf("  images fed         %llu\n", (unsigned long long)fed);
    std::printf("  frames decoded     %llu\n", (unsigned long long)decoded);
    std::printf("  dropped at I-frames %llu\n", (unsigned long long)dropped);
    std::printf("  decode errors      %llu\n", (unsigned long long)errors);
    std::printf("  decode rate        %.1f frames/s over %.1f s\n", decoded / elapsed, elapsed);
    std::printf("  record rate        %.1f pictures/s (%d pictures, %d s)\n", recorder.pictures() / elapsed,
                recorder.pictures(), seconds);
    std::printf("  recording          %s\n", qPrintable(QFileInfo(mp4).absoluteFilePath()));
    std::printf("  snapshot           %s\n", qPrintable(QFileInfo(png).absoluteFilePath()));
    return decoded > 0 ? 0 : 1;
}
