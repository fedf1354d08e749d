// Many streams for a while: 64 pooled decoders on one owner thread, fed interleaved real
// H.264, H.265, Motion JPEG and MPEG-4 images with about 2% of them damaged (cut, bits
// flipped, garbage, sent with another format code, never handed over), facades destroyed
// and recreated at random moments, I-frame clearing on for half of them. Every image a
// live decoder accepted ends in exactly one frame or error, or was cleared from its backlog.
// ORVO_SOAK_SECONDS sets the length (default 8).
#include "common/test_streams.h"
#include "orvo/concurrent_decoder.h"
#include "orvo/decoder_error.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <vector>
#include <malloc.h>
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

// One byte per image id (ids count from 1 per decoder): bounded bookkeeping however long
// the soak runs.
struct Account {
    static constexpr quint8 kFed = 0x80;
    static constexpr quint8 kNoSlice = 0x40;
    static constexpr quint8 kAnswers = 0x3f;
    quint64 fed = 0, frames = 0, errors = 0, refused = 0, strangers = 0;
    std::vector<quint8> images;  // kFed | kNoSlice | number of answers
    void given(quint64 id, bool noSlice)
    {
        if (images.size() < id)
            images.resize(id, 0);
        images[id - 1] |= kFed | (noSlice ? kNoSlice : 0);
    }
    void answer(quint64 id)
    {
        if (id == 0 || id > images.size() || !(images[id - 1] & kFed)) {
            ++strangers;
            return;
        }
        if ((images[id - 1] & kAnswers) < kAnswers)
            ++images[id - 1];
    }
};

struct Slot {
    std::unique_ptr<ConcurrentDecoder> decoder;
    std::shared_ptr<Account> account;  // outlives the decoder: late signals land here
    size_t stream = 0;
    size_t next = 0;
    quint64 nextId = 1;
    bool clearing = false;
};

// Whether an H.264 ('h') or H.265 ('e') payload holds no coded slice, by the NAL unit types
// of the standards: damage may turn a picture's only slice into a delimiter, SEI or a
// parameter set. Such an image joins the access unit that follows and is named by no answer.
bool holdsNoSlice(quint8 code, const QByteArray& payload)
{
    if (code != 'h' && code != 'e')
        return false;
    const auto* b = reinterpret_cast<const unsigned char*>(payload.constData());
    for (int i = 0; i + 3 < payload.size(); ++i) {
        if (b[i] != 0 || b[i + 1] != 0 || b[i + 2] != 1)
            continue;
        const unsigned char header = b[i + 3];
        const int type = code == 'h' ? header & 0x1f : (header >> 1) & 0x3f;
        if (code == 'h' ? (type >= 1 && type <= 5) : (type <= 9 || (type >= 16 && type <= 21)))
            return false;
    }
    return true;
}

long residentKiB()
{
    // Free memory the allocator still holds (per-thread arenas after thousands of decoders
    // came and went), so that what is measured is what is in use.
    malloc_trim(0);
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
        demuxVideo(ffmpegFile("soak_hevc.hevc", src + " -c:v libx265 -x265-params "
                                                      "log-level=error:bframes=0:keyint=12:min-keyint=12 -f hevc")),
    };
}

template <typename Backlog>
bool waitUntilIdle(std::vector<Slot>& lanes, Backlog backlog)
{
    QElapsedTimer clock;
    clock.start();
    for (bool busy = true; busy;) {
        if (clock.elapsed() > 60000)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        busy = false;
        for (Slot& slot : lanes)
            busy = busy || slot.decoder->isBusy() || backlog(slot) > 0;
    }
    return true;
}

}  // namespace

TEST(Soak, SixtyFourStreamsAccountForEveryImage)
{
    const auto streams = soakStreams();
    const quint8 codes[] = {'h', 'j', 'm', 'e'};
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
            account->answer(f.id());
        });
        QObject::connect(slot.decoder->getInterface(), &DecoderInterfaceSignals::error,
                         [account](const DecoderError& e) {
                             ++account->errors;
                             account->answer(e.imageId());
                         });
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
    qint64 nextRecreate = 0;
    while (clock.elapsed() < seconds * 1000) {
        for (size_t i = 0; i < lanes.size(); ++i) {
            Slot& slot = lanes[i];
            if (backlog(slot) >= 6)
                continue;
            const auto& packets = streams[slot.stream];
            const Packet& p = packets[slot.next++ % packets.size()];
            QByteArray payload = p.data;
            quint8 code = codes[slot.stream];
            const unsigned damage = rng() % 250;
            if (damage == 0)  // the last packets of a picture lost
                payload.truncate(payload.size() / 2 + int(rng() % quint32(payload.size() / 2 + 1)));
            else if (damage == 1)
                for (int k = 0; k < 16 && !payload.isEmpty(); ++k)
                    payload[int(rng() % quint32(payload.size()))] = char(rng());
            else if (damage == 2)
                code = codes[(slot.stream + 1) % std::size(codes)];
            else if (damage == 3)
                // Garbage without start codes: random bytes that happened to begin a parameter
                // set would join the next access unit and be answered by its picture.
                for (char& c : payload)
                    c = char(rng() | 0x80);
            else if (damage == 4)
                continue;  // lost on the way
            Image image(code, payload, slot.nextId++, qint64(slot.next) * 40, p.key);
            if (slot.decoder->decode(image) > 0) {
                ++slot.account->fed;
                slot.account->given(image.id(), holdsNoSlice(code, payload));
                ++fedTotal;
            } else {
                ++slot.account->refused;
            }
        }
        if (clock.elapsed() >= nextRecreate) {  // a client closes a view and opens another
            nextRecreate += 100 + qint64(rng() % 200);
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
    ASSERT_TRUE(waitUntilIdle(lanes, backlog)) << "decoders did not drain";

    // The held pictures come out at the end of each stream.
    for (Slot& slot : lanes)
        slot.decoder->drain();
    ASSERT_TRUE(waitUntilIdle(lanes, backlog));

    std::map<const Account*, const Slot*> live;
    for (Slot& slot : lanes)
        live[slot.account.get()] = &slot;
    quint64 frames = 0, errors = 0, answered = 0, cleared = 0, withoutSlice = 0;
    for (const auto& a : accounts) {
        EXPECT_EQ(a->strangers, 0u);
        frames += a->frames;
        errors += a->errors;
        quint64 once = 0, sliceless = 0;
        for (size_t i = 0; i < a->images.size(); ++i) {
            const int answers = a->images[i] & Account::kAnswers;
            EXPECT_LE(answers, 1) << "image " << i + 1 << " answered " << answers << " times";
            once += answers == 1 ? 1 : 0;
            sliceless += answers == 0 && (a->images[i] & Account::kNoSlice) ? 1 : 0;
        }
        auto it = live.find(a.get());
        if (it == live.end())
            continue;  // destroyed with work in flight: what it still held is not answered
        // Images the decoder refused or cleared from its backlog at an I-frame are counted
        // as dropped; every other accepted image holding a slice is answered exactly once.
        auto* impl = qobject_cast<ConcurrentDecoderImpl*>(it->second->decoder->getInterface());
        const quint64 dropped = impl->droppedImages() - a->refused;
        // (An image without a slice may have been cleared as well: it is counted once.)
        EXPECT_LE(once + dropped, a->fed) << "answers " << once << ", cleared " << dropped;
        EXPECT_GE(once + dropped + sliceless, a->fed)
            << "answers " << once << ", cleared " << dropped << ", unanswered without a slice " << sliceless;
        answered += once;
        cleared += dropped;
        withoutSlice += sliceless;
    }
    EXPECT_GT(frames, 1000u) << "clearing decoders drop most images by design, the others decode all";
    EXPECT_GT(recreated, 0u);
    std::printf("soak: %llu images fed, %llu frames, %llu errors, %llu decoders recreated; live decoders: %llu "
                "images answered once, %llu cleared, %llu without a slice\n",
                (unsigned long long)fedTotal, (unsigned long long)frames, (unsigned long long)errors,
                (unsigned long long)recreated, (unsigned long long)answered, (unsigned long long)cleared,
                (unsigned long long)withoutSlice);
#ifndef ORVO_SOAK_SANITIZED
    const long endRss = residentKiB();  // with every decoder still alive
    EXPECT_LT(endRss - warmRss, 96 * 1024) << "resident memory grew from " << warmRss << " KiB to " << endRss;
    std::printf("soak: resident %ld KiB after a quarter of the time, %ld KiB at the end\n", warmRss, endRss);
#endif
    lanes.clear();
}
