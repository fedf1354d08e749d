// Many streams for a while: 64 pooled decoders on one owner thread, fed interleaved real
// H.264, Motion JPEG and MPEG-4 images with about 1% of them damaged, facades destroyed
// and recreated at random moments, I-frame clearing on for half of them.
// ORVO_SOAK_SECONDS sets the length (default 8).
#include "common/test_streams.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/decoder_error.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>
#include <unistd.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ORVO_SOAK_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ORVO_SOAK_SANITIZED 1
#endif

using namespace orvo;
using namespace orvo::test;

namespace {

struct Account {
    quint64 fed = 0, frames = 0, errors = 0, cleared = 0, duplicates = 0, strangers = 0, damaged = 0;
    std::set<quint64> fedIds, frameIds;
};

struct Slot {
    std::unique_ptr<ConcurrentDecoder> decoder;
    std::shared_ptr<Account> account;  // outlives the decoder: late signals land here
    size_t stream = 0;
    size_t next = 0;
    quint64 nextId = 1;
    bool clearing = false;
};

long residentKiB()
{
    const QList<QByteArray> statm = readFile(QStringLiteral("/proc/self/statm")).split(' ');
    return statm.size() > 1 ? statm[1].toLong() * (sysconf(_SC_PAGESIZE) / 1024) : 0;
}

std::vector<std::vector<Packet>> soakStreams()
{
    const QString src = QStringLiteral("-f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 48");
    return {
        demuxVideo(ffmpegFile("soak_h264.h264", src + " -c:v libx264 -profile:v baseline -g 12 -bf 0 -f h264")),
        demuxVideo(ffmpegFile("soak_mjpeg.avi", src + " -c:v mjpeg -pix_fmt yuvj420p")),
        demuxVideo(ffmpegFile("soak_mpeg4.m4v", src + " -c:v mpeg4 -g 12 -bf 0 -f m4v")),
    };
}

}  // namespace

TEST(Soak, SixtyFourStreamsAccountForEveryImage)
{
    const auto streams = soakStreams();
    const quint8 codes[] = {'h', 'j', 'm'};
    for (const auto& s : streams)
        ASSERT_GE(s.size(), 40u);
    bool set = false;
    const int given = qEnvironmentVariableIntValue("ORVO_SOAK_SECONDS", &set);
    const int seconds = set ? given : 8;

    std::mt19937 rng(20261123);
    std::vector<std::shared_ptr<Account>> accounts;
    std::vector<Slot> lanes(64);
    auto create = [&](Slot& slot, size_t index) {
        slot.decoder = std::make_unique<ConcurrentDecoder>(nullptr);
        slot.account = std::make_shared<Account>();
        accounts.push_back(slot.account);
        slot.clearing = index % 2 == 0;
        if (slot.clearing)
            slot.decoder->clearInputQueueOnIFrames();
        slot.stream = index % streams.size();
        slot.next = 0;
        auto account = slot.account;
        QObject::connect(slot.decoder.get(), &ConcurrentDecoder::frameDecoded, [account](const VideoFrame& f) {
            ++account->frames;
            if (!account->fedIds.count(f.id()))
                ++account->strangers;
            if (!account->frameIds.insert(f.id()).second)
                ++account->duplicates;
        });
        QObject::connect(slot.decoder->getInterface(), &DecoderInterfaceSignals::error,
                         [account](const DecoderError&) { ++account->errors; });
    };
    for (size_t i = 0; i < lanes.size(); ++i)
        create(lanes[i], i);

    auto backlog = [](Slot& slot) -> quint64 {
        auto* impl = qobject_cast<ConcurrentDecoderImpl*>(slot.decoder->getInterface());
        if (!impl || impl->isBacklogEmpty())
            return 0;
        return impl->lastBacklogImageId() - impl->oldestBacklogImageId() + 1;
    };

    QElapsedTimer clock;
    clock.start();
    long warmRss = 0;
    quint64 fedTotal = 0, recreated = 0;
    while (clock.elapsed() < seconds * 1000) {
        for (size_t i = 0; i < lanes.size(); ++i) {
            Slot& slot = lanes[i];
            if (backlog(slot) >= 6)
                continue;
            const auto& packets = streams[slot.stream];
            const Packet& p = packets[slot.next++ % packets.size()];
            QByteArray payload = p.data;
            quint8 code = codes[slot.stream];
            const unsigned damage = rng() % 300;
            if (damage == 0)
                payload.truncate(int(rng() % quint32(payload.size())));
            else if (damage == 1)
                for (int k = 0; k < 16 && !payload.isEmpty(); ++k)
                    payload[int(rng() % quint32(payload.size()))] = char(rng());
            else if (damage == 2)
                code = codes[(slot.stream + 1) % 3];
            if (damage <= 2)
                ++slot.account->damaged;
            Image image(code, payload, slot.nextId++, qint64(slot.next) * 40, p.key);
            if (slot.clearing && p.key)
                slot.account->cleared += backlog(slot);
            if (slot.decoder->decode(image) > 0) {
                ++slot.account->fed;
                slot.account->fedIds.insert(image.id());
                ++fedTotal;
            }
        }
        if (rng() % 40 == 0) {  // a client closes a view and opens another
            Slot& victim = lanes[rng() % lanes.size()];
            victim.decoder.reset();
            create(victim, size_t(rng() % 64));
            ++recreated;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        if (!warmRss && clock.elapsed() > seconds * 250)
            warmRss = residentKiB();
    }

    // Let every live decoder finish its backlog.
    QElapsedTimer drain;
    drain.start();
    for (bool busy = true; busy && drain.elapsed() < 60000;) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        busy = false;
        for (Slot& slot : lanes)
            busy = busy || slot.decoder->isBusy() || backlog(slot) > 0;
    }
    ASSERT_LT(drain.elapsed(), 60000) << "decoders did not drain";

    std::set<const Account*> live;
    for (Slot& slot : lanes)
        live.insert(slot.account.get());
    quint64 frames = 0, errors = 0;
    for (const auto& a : accounts) {
        EXPECT_EQ(a->duplicates, 0u);
        EXPECT_EQ(a->strangers, 0u);
        frames += a->frames;
        errors += a->errors;
        // A damaged image may leave no result at all (an unfinished picture, P-frames that
        // lost their references), at worst for the rest of its group of 12 pictures.
        if (live.count(a.get())) {
            EXPECT_LE(a->frames + a->errors + a->cleared, a->fed) << "live decoder invented results";
            EXPECT_GE(a->frames + a->errors + a->cleared + 12 * a->damaged, a->fed) << "live decoder lost results";
        } else
            EXPECT_LE(a->frames + a->errors + a->cleared, a->fed);
    }
    EXPECT_GT(frames, 1000u) << "clearing decoders drop most images by design, the others decode all";
    EXPECT_GT(recreated, 0u);
    std::printf("soak: %llu images fed, %llu frames, %llu errors, %llu decoders recreated\n",
                (unsigned long long)fedTotal, (unsigned long long)frames, (unsigned long long)errors,
                (unsigned long long)recreated);
#ifndef ORVO_SOAK_SANITIZED
    const long endRss = residentKiB();  // with every decoder still alive
    EXPECT_LT(endRss - warmRss, 96 * 1024) << "resident memory grew from " << warmRss << " KiB to " << endRss;
#endif
    lanes.clear();
}
