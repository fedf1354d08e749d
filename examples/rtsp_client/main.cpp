// rtsp_client: a network camera through StreamReader and a pooled decoder.
//
//   rtsp_client URL [--tcp | --udp] [--seconds N] [--snapshot FILE]
//
// The reader blocks on the network, so it runs on a thread of its own and posts each image
// to the main thread; the main thread owns the ConcurrentDecoder and runs the event loop
// that delivers its pictures. At the end (time is up, the stream ended or failed) the
// main thread stops a reader that may be blocked with interrupt(), then joins it.
#include <orvo/concurrent_decoder.h>
#include <orvo/stream_reader.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QTimer>

#include <cstdio>
#include <thread>

namespace {

struct Options {
    QString url;
    orvo::StreamReader::Transport transport = orvo::StreamReader::Transport::Auto;
    int seconds = 10;
    QString snapshot;
};

bool parse(const QStringList& args, Options& o)
{
    for (int i = 1; i < args.size(); ++i) {
        const QString& a = args[i];
        if (a == QLatin1String("--tcp"))
            o.transport = orvo::StreamReader::Transport::Tcp;
        else if (a == QLatin1String("--udp"))
            o.transport = orvo::StreamReader::Transport::Udp;
        else if (a == QLatin1String("--seconds") && i + 1 < args.size())
            o.seconds = args[++i].toInt();
        else if (a == QLatin1String("--snapshot") && i + 1 < args.size())
            o.snapshot = args[++i];
        else if (o.url.isEmpty() && !a.startsWith(QLatin1String("--")))
            o.url = a;
        else
            return false;
    }
    return !o.url.isEmpty() && o.seconds > 0;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    Options options;
    if (!parse(app.arguments(), options)) {
        std::fprintf(stderr, "usage: rtsp_client URL [--tcp | --udp] [--seconds N] [--snapshot FILE]\n");
        return 2;
    }

    // Owner thread: the decoder, its signals, and the event loop that delivers them.
    orvo::ConcurrentDecoder decoder;
    decoder.clearInputQueueOnIFrames();  // a decoder that falls behind catches up at the next I-frame
    decoder.setInputQueueMaxSize(8);
    QElapsedTimer clock;
    clock.start();
    int pictures = 0, errors = 0;
    QObject::connect(&decoder, &orvo::ConcurrentDecoder::frameDecoded, [&](const orvo::VideoFrame& frame) {
        if (pictures++ == 0) {
            std::printf("first picture %dx%d after %lld ms%s\n", frame.width(), frame.height(),
                        static_cast<long long>(clock.elapsed()), frame.isDamaged() ? " (damaged)" : "");
            // One call makes an RGB image of the whole picture.
            const QImage rgb = frame.convertToQImage(frame.pixelFormat(), 0, 0, -1, -1, 0, 0, 1, 1, 1, 1);
            if (!options.snapshot.isEmpty() && !rgb.save(options.snapshot))
                std::fprintf(stderr, "cannot write %s\n", qPrintable(options.snapshot));
        }
    });
    QObject::connect(&decoder, &orvo::ConcurrentDecoder::error, [&](const orvo::DecoderError& e) {
        ++errors;  // an image without a picture: before the first key frame, or lost packets
        if (errors <= 5)
            std::fprintf(stderr, "image %llu: %s %s\n", static_cast<unsigned long long>(e.imageId()),
                         qPrintable(e.message()), qPrintable(e.reason()));
    });

    // Reader thread: open, read, post each image to the owner thread.
    orvo::StreamReader reader;
    reader.setTransport(options.transport);
    QString ending;
    std::thread reading([&] {
        if (reader.open(options.url)) {
            std::printf("opened %s after %lld ms\n", qPrintable(options.url), static_cast<long long>(clock.elapsed()));
            orvo::Image image;
            while (reader.read(image) == orvo::StreamReader::Result::Image)
                QMetaObject::invokeMethod(&decoder, [&decoder, image] { decoder.decode(image); },
                                          Qt::QueuedConnection);
        }
        const QString why = reader.errorString();
        QMetaObject::invokeMethod(&app, [&ending, why] {
            ending = why;
            QCoreApplication::quit();
        }, Qt::QueuedConnection);
    });

    QTimer::singleShot(options.seconds * 1000, &app, &QCoreApplication::quit);
    app.exec();
    reader.interrupt();  // a read blocked on the camera returns at once
    reading.join();

    std::printf("%d pictures, %d images without one, in %lld ms%s%s\n", pictures, errors,
                static_cast<long long>(clock.elapsed()), ending.isEmpty() ? "" : ": ", qPrintable(ending));
    return pictures > 0 ? 0 : 1;
}
