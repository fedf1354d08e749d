// orvo::StreamReader against a real RTSP server (GStreamer's, tests/network/rtsp_server.py):
// H.264, H.265 and Motion JPEG over TCP and UDP compared byte for byte with the ffmpeg
// command line's decode of the same URL; a reader thread feeding a pooled decoder; a server
// that stops answering or goes away; a server that accepts and never answers, stopped from
// another thread; and packet loss, which must give damaged pictures rather than a stall.
#include "common/test_streams.h"
#include "network/rtsp_server.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/stream_reader.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <map>
#include <memory>
#include <thread>

using namespace orvo;
using namespace orvo::test;

namespace {

#define SKIP_WITHOUT_SERVER()                                        \
    if (const QString why = RtspServer::missing(); !why.isEmpty()) \
    GTEST_SKIP() << why.toStdString()

constexpr int kWidth = 320, kHeight = 240;

struct Read {
    std::vector<Image> images;
    StreamReader::Result end = StreamReader::Result::Image;
    qint64 lastMs = 0;  // how long the last read() took
};

Read readAll(StreamReader& reader, size_t limit = 1000)
{
    Read out;
    Image image;
    QElapsedTimer timer;
    while (out.images.size() < limit) {
        timer.start();
        out.end = reader.read(image);
        out.lastMs = timer.elapsed();
        if (out.end != StreamReader::Result::Image)
            break;
        out.images.push_back(image);
    }
    return out;
}

// A TCP port on 127.0.0.1 that accepts connections (the kernel completes them from the
// backlog) and never says a word; or, closed at once, a port that refuses them.
class SilentServer {
public:
    SilentServer()
    {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&a), len) != 0 || ::listen(fd_, 8) != 0 ||
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len) != 0)
            return;
        port_ = ntohs(a.sin_port);
    }
    ~SilentServer() { close(); }
    void close()
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
    }
    QString url() const { return QStringLiteral("rtsp://127.0.0.1:%1/cam").arg(port_); }

private:
    int fd_ = -1;
    int port_ = 0;
};

// --- pictures -----------------------------------------------------------------------------

struct PictureCase {
    const char* codec;
    quint8 code;
    StreamReader::Transport transport;
    const char* referenceArgs;  // how the command line makes the library's yuv420p
};

std::string pictureCaseName(const testing::TestParamInfo<PictureCase>& info)
{
    return std::string(info.param.codec) + (info.param.transport == StreamReader::Transport::Tcp ? "_tcp" : "_udp");
}

class RtspPictures : public testing::TestWithParam<PictureCase> {};

// One server per codec: each client gets its own stream of the same 30 pictures.
RtspServer& serverFor(const char* codec)
{
    static std::map<std::string, std::unique_ptr<RtspServer>> servers;
    auto& server = servers[codec];
    if (!server)
        server = std::make_unique<RtspServer>(QStringList{codec, "--frames", "30", "--rate", "50"});
    return *server;
}

TEST_P(RtspPictures, AreTheCommandLinesPicturesWithTheStreamsTimes)
{
    SKIP_WITHOUT_SERVER();
    const PictureCase& c = GetParam();
    RtspServer& server = serverFor(c.codec);
    ASSERT_TRUE(server.isListening());
    // The command line reads the same URL at the same time, losslessly.
    auto reference = std::async(std::launch::async, [&] {
        return ffmpegFrames(server.url(), kWidth, kHeight, QStringLiteral("yuv420p"),
                            QString::fromLatin1(c.referenceArgs), QStringLiteral("-rtsp_transport tcp -threads 1"));
    });

    StreamReader reader;
    reader.setTransport(c.transport);
    ASSERT_TRUE(reader.open(server.url())) << reader.errorString().toStdString();
    EXPECT_TRUE(reader.isNetworkStream());
    EXPECT_EQ(reader.formatCode(), c.code);
    const Read read = readAll(reader);
    EXPECT_EQ(read.end, StreamReader::Result::End);
    EXPECT_TRUE(reader.errorString().contains(server.url())) << reader.errorString().toStdString();
    // UDP on a loaded machine may lose a datagram even over loopback: a picture whose packets
    // did not all arrive is left out by the depacketizer. Over TCP nothing may be missing.
    const size_t lost = 30 - std::min<size_t>(30, read.images.size());
    if (c.transport == StreamReader::Transport::Tcp)
        ASSERT_EQ(read.images.size(), 30u);
    else
        ASSERT_LE(lost, 2u) << "more UDP loss than loopback explains";
    ASSERT_FALSE(read.images.empty());
    EXPECT_TRUE(read.images[0].iframe());
    for (size_t k = 0; k < read.images.size(); ++k) {
        // RTP time, 50 pictures a second.
        if (lost == 0)
            EXPECT_EQ(read.images[k].time(), qint64(k) * 20) << k;
        EXPECT_EQ(read.images[k].time() % 20, 0) << k;
        EXPECT_EQ(read.images[k].id(), k + 1);
        EXPECT_TRUE(read.images[k].isAccessUnitEnd()) << k;
    }
    std::vector<quint64> failed;
    const std::vector<VideoFrame> frames = decodeImages(read.images, &failed);
    EXPECT_TRUE(failed.empty());

    const std::vector<QByteArray> expected = reference.get();
    ASSERT_EQ(expected.size(), 30u);
    // Over UDP an access unit may also arrive without some of its packets: such an image can
    // end without a picture (its slices gone) or with a concealed one.
    if (c.transport == StreamReader::Transport::Tcp)
        ASSERT_EQ(frames.size(), read.images.size());
    else
        ASSERT_LE(read.images.size() - std::min(read.images.size(), frames.size()), 2u);
    if (frames.size() != read.images.size())
        return;
    // A lost picture leaves the later ones of an inter-coded stream without their reference:
    // those are compared only where nothing was lost, or where every picture stands alone.
    if (lost > 0 && std::string(c.codec) != "mjpeg")
        return;
    for (size_t k = 0; k < frames.size(); ++k) {
        const size_t at = size_t(read.images[k].time() / 20);
        ASSERT_LT(at, expected.size()) << k;
        EXPECT_FALSE(frames[k].isDamaged()) << k;
        EXPECT_EQ(maxDiffYuv420p(frames[k], expected[at], kWidth, kHeight), 0) << k;
    }
}

constexpr auto kTcp = StreamReader::Transport::Tcp;
constexpr auto kUdp = StreamReader::Transport::Udp;
// Full-range JPEG pictures reach the library's frames converted as the command line does it
// with bilinear scaling.
INSTANTIATE_TEST_SUITE_P(Rtsp, RtspPictures,
                         testing::Values(PictureCase{"h264", 'h', kTcp, ""}, PictureCase{"h264", 'h', kUdp, ""},
                                         PictureCase{"h265", 'e', kTcp, ""}, PictureCase{"h265", 'e', kUdp, ""},
                                         PictureCase{"mjpeg", 'j', kTcp, "-sws_flags bilinear"},
                                         PictureCase{"mjpeg", 'j', kUdp, "-sws_flags bilinear"}),
                         pictureCaseName);

// --- a camera client: a reader thread and a pooled decoder ----------------------------------

// The reader runs on a thread of its own and posts each image to the owner thread, which
// decodes it on the pool: a picture leaves the decoder soon after its image left the server.
TEST(Rtsp, AReaderThreadFeedsAPooledDecoderWithoutDelay)
{
    SKIP_WITHOUT_SERVER();
    RtspServer server({"h264", "--live", "--gop", "25", "--rate", "25"});
    ASSERT_TRUE(server.isListening());
    ConcurrentDecoder decoder;
    QObject owner;
    QElapsedTimer clock;
    std::vector<std::pair<qint64, qint64>> shown;  // (wall ms, stream ms) of each picture
    int errors = 0;
    QObject::connect(&decoder, &ConcurrentDecoder::frameDecoded, &owner,
                     [&](const VideoFrame& f) { shown.emplace_back(clock.elapsed(), f.image().time()); });
    QObject::connect(&decoder, &ConcurrentDecoder::error, &owner, [&](const DecoderError&) { ++errors; });

    constexpr size_t kImages = 25;
    StreamReader reader;
    reader.setTransport(kTcp);
    clock.start();
    std::thread reading([&] {
        if (!reader.open(server.url()))
            return;
        Image image;
        for (size_t n = 0; n < kImages && reader.read(image) == StreamReader::Result::Image; ++n)
            QMetaObject::invokeMethod(&owner, [&decoder, image] { decoder.decode(image); }, Qt::QueuedConnection);
    });
    QElapsedTimer waited;
    waited.start();
    while (shown.size() + size_t(errors) < kImages && waited.elapsed() < 10000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    reading.join();
    ASSERT_EQ(shown.size(), kImages) << reader.errorString().toStdString();
    EXPECT_EQ(errors, 0);
    // Later pictures arrive as the server sends them; their smallest wall-minus-stream time
    // is the stream's offset. The first picture is late by its own difference beyond that.
    qint64 offset = shown.back().first - shown.back().second;
    for (const auto& s : shown)
        offset = std::min(offset, s.first - s.second);
    const qint64 firstLate = shown.front().first - shown.front().second - offset;
    EXPECT_LT(firstLate, 500) << "ms from the first key frame leaving the server to its picture";
}

// --- a server that stops answering or goes away, and stopping from another thread -------------

TEST(Rtsp, AServerThatStopsAnsweringOrGoesAwayEndsTheReadWithinTheTimeout)
{
    SKIP_WITHOUT_SERVER();
    constexpr int kTimeout = 800;
    constexpr qint64 kSlack = 700;  // FFmpeg polls its interrupt callback every 100 ms
    for (bool freeze : {true, false}) {
        SCOPED_TRACE(freeze ? "frozen, TCP" : "killed, UDP");
        RtspServer server({"h264", "--live", "--rate", "25"});
        ASSERT_TRUE(server.isListening());
        StreamReader reader;
        reader.setTransport(freeze ? kTcp : kUdp);
        reader.setTimeout(kTimeout);
        ASSERT_TRUE(reader.open(server.url())) << reader.errorString().toStdString();
        ASSERT_EQ(readAll(reader, 5).images.size(), 5u);
        freeze ? server.freeze() : server.kill();
        const Read rest = readAll(reader);
        EXPECT_LT(rest.images.size(), 25u) << "pictures of a server that is gone";
        EXPECT_LE(rest.lastMs, kTimeout + kSlack);
        EXPECT_TRUE(reader.errorString().contains(server.url())) << reader.errorString().toStdString();
        if (freeze) {
            EXPECT_EQ(rest.end, StreamReader::Result::Error);
            EXPECT_TRUE(reader.errorString().contains(QLatin1String("timed out"))) << reader.errorString().toStdString();
        } else {
            EXPECT_NE(rest.end, StreamReader::Result::Image);
            EXPECT_FALSE(reader.errorString().isEmpty());
        }
    }
}

TEST(Rtsp, OpenAgainstASilentServerTimesOutOrIsStoppedFromAnotherThread)
{
    // No GStreamer needed: the silent server is a listening socket of this process.
    SilentServer silent;
    StreamReader reader;
    reader.setTimeout(0);  // would wait for ever
    QElapsedTimer clock;
    clock.start();
    bool opened = true;
    std::thread opening([&] { opened = reader.open(silent.url()); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    reader.interrupt();
    opening.join();
    EXPECT_FALSE(opened);
    EXPECT_LT(clock.elapsed(), 1500);
    EXPECT_TRUE(reader.isInterrupted());
    EXPECT_TRUE(reader.errorString().endsWith(QLatin1String("interrupted"))) << reader.errorString().toStdString();
    // Stopped until close(): a stop that came just before the open is not lost.
    clock.restart();
    EXPECT_FALSE(reader.open(silent.url()));
    EXPECT_LT(clock.elapsed(), 100);
    reader.close();
    EXPECT_FALSE(reader.isInterrupted());

    reader.setTimeout(400);
    clock.restart();
    EXPECT_FALSE(reader.open(silent.url()));
    EXPECT_GE(clock.elapsed(), 350);
    EXPECT_LT(clock.elapsed(), 1500);
    EXPECT_TRUE(reader.errorString().contains(QLatin1String("timed out"))) << reader.errorString().toStdString();

    // Nobody listens: FFmpeg's own reason, and no password in the message.
    silent.close();
    EXPECT_FALSE(reader.open(silent.url().replace(QLatin1String("rtsp://"), QLatin1String("rtsp://cam:secret@"))));
    EXPECT_TRUE(reader.errorString().contains(QLatin1String("Connection refused")))
        << reader.errorString().toStdString();
    EXPECT_FALSE(reader.errorString().contains(QLatin1String("secret"))) << reader.errorString().toStdString();
}

TEST(Rtsp, AReadBlockedOnAFrozenServerIsStoppedFromAnotherThread)
{
    SKIP_WITHOUT_SERVER();
    RtspServer server({"h264", "--live", "--rate", "25"});
    ASSERT_TRUE(server.isListening());
    StreamReader reader;
    reader.setTimeout(0);
    ASSERT_TRUE(reader.open(server.url())) << reader.errorString().toStdString();
    ASSERT_EQ(readAll(reader, 3).images.size(), 3u);
    server.freeze();
    Read rest;
    std::thread reading([&] { rest = readAll(reader); });
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    QElapsedTimer clock;
    clock.start();
    reader.interrupt();
    reading.join();
    EXPECT_LT(clock.elapsed(), 1000);
    EXPECT_EQ(rest.end, StreamReader::Result::Error);
    EXPECT_TRUE(reader.errorString().endsWith(QLatin1String("interrupted"))) << reader.errorString().toStdString();
}

// --- packet loss ----------------------------------------------------------------------------

// 5% of the RTP packets dropped in the server, pictures of several packets: every image is
// answered, almost every one with a picture, some of them damaged, and the stream goes on.
TEST(Rtsp, PacketLossGivesDamagedPicturesNotAStall)
{
    SKIP_WITHOUT_SERVER();
    RtspServer server({"h264", "--frames", "100", "--rate", "50", "--drop", "0.05", "--mtu", "300"});
    ASSERT_TRUE(server.isListening());
    StreamReader reader;
    reader.setTransport(kTcp);
    ASSERT_TRUE(reader.open(server.url())) << reader.errorString().toStdString();
    const Read read = readAll(reader);
    EXPECT_EQ(read.end, StreamReader::Result::End);
    EXPECT_GE(read.images.size(), 85u) << "pictures whose every packet was lost leave no image";
    std::vector<quint64> failed;
    const std::vector<VideoFrame> frames = decodeImages(read.images, &failed);
    EXPECT_EQ(frames.size() + failed.size(), read.images.size()) << "one answer per image";
    EXPECT_GE(frames.size(), read.images.size() * 9 / 10);
    const auto damaged = std::count_if(frames.begin(), frames.end(), [](const VideoFrame& f) { return f.isDamaged(); });
    EXPECT_GE(damaged, 1);
}

}  // namespace
