// Streams damaged the way networks damage them (a picture cut to half, replaced by garbage,
// lost; at an I-frame, early and in the middle of a group of pictures), cut into whole
// access units and into NAL units: the decoder shows what the ffmpeg command line shows of
// the same bytes, and every image holding a slice ends in exactly one answer.
#include "common/test_streams.h"
#include "orvo/decoder.h"

#include <QFile>
#include <gtest/gtest.h>

#include <map>
#include <random>

using namespace orvo;
using namespace orvo::test;

namespace {

#define DAMAGE_SRC "-f lavfi -i testsrc2=size=320x240:rate=25 -frames:v 40 -pix_fmt yuv420p "
#define DAMAGE_X265 "-c:v libx265 -x265-params log-level=error:bframes=0:keyint=20:min-keyint=20:scenecut=0:"

const ClipSpec kClipSpecs[] = {
    {"damage_h264.h264", 'h', DAMAGE_SRC "-c:v libx264 -bf 0 -g 20 -f h264"},
    {"damage_h264_slices.h264", 'h', DAMAGE_SRC "-c:v libx264 -slices 4 -bf 0 -g 20 -f h264"},
    {"damage_hevc.hevc", 'e', DAMAGE_SRC DAMAGE_X265 "slices=1 -f hevc"},
    {"damage_hevc_slices.hevc", 'e', DAMAGE_SRC DAMAGE_X265 "slices=4 -f hevc"},
};

enum class Damage { Truncate, Garbage, Drop };
// The first I-frame, an early P-frame, one in the middle of the group, the second I-frame.
const int kDamagedPictures[] = {0, 3, 12, 20};

struct DamageCase {
    const ClipSpec* clip;
    Damage damage;
    int picture;
    bool nalCut;
};

std::string damageCaseName(const testing::TestParamInfo<DamageCase>& info)
{
    static const char* damages[] = {"truncated", "garbage", "dropped"};
    std::string clip = info.param.clip->name;
    clip = clip.substr(0, clip.find('.'));
    return clip + "_" + damages[int(info.param.damage)] + "_" + std::to_string(info.param.picture) +
           (info.param.nalCut ? "_nal" : "_au");
}

std::vector<DamageCase> damageCases()
{
    std::vector<DamageCase> out;
    for (const ClipSpec& clip : kClipSpecs)
        for (Damage damage : {Damage::Truncate, Damage::Garbage, Damage::Drop})
            for (int picture : kDamagedPictures)
                for (bool nal : {false, true})
                    // Without the first I-frame's parameter sets no live decoder can start
                    // an H.265 stream; the command line reads ahead for them in the file.
                    if (!(clip.code == 'e' && damage != Damage::Truncate && picture == 0))
                        out.push_back({&clip, damage, picture, nal});
    return out;
}

// Access units of a clip, made once per run.
const std::vector<Packet>& clipUnits(const ClipSpec& clip)
{
    static std::map<std::string, std::vector<Packet>> cache;
    auto it = cache.find(clip.name);
    if (it == cache.end())
        it = cache.emplace(clip.name, demuxVideo(ffmpegFile(clip.name, clip.encode))).first;
    return it->second;
}

QByteArray garbage(int size, unsigned seed)
{
    std::mt19937 rng(seed);
    QByteArray out(size, '\0');
    for (char& c : out)
        c = char(rng() | 0x80);  // no start code can form
    return out;
}

struct Damaged {
    std::vector<QByteArray> units;  // the stream's access units after the damage
    std::vector<bool> keys;
};

Damaged damage(const std::vector<Packet>& packets, Damage kind, int picture)
{
    Damaged out;
    for (size_t k = 0; k < packets.size(); ++k) {
        QByteArray unit = packets[k].data;
        if (int(k) == picture) {
            if (kind == Damage::Drop)
                continue;
            unit = kind == Damage::Truncate ? unit.left(unit.size() / 2) : garbage(unit.size(), unsigned(k));
        }
        out.units.push_back(unit);
        out.keys.push_back(packets[k].key);
    }
    return out;
}

std::vector<Image> toCameraImages(const Damaged& d, quint8 code, bool nalCut)
{
    std::vector<Image> images;
    for (size_t k = 0; k < d.units.size(); ++k)
        for (const QByteArray& payload : nalCut ? nalUnits(d.units[k]) : std::vector<QByteArray>{d.units[k]})
            images.emplace_back(code, payload, images.size() + 1, qint64(k) * 40, d.keys[k]);
    return images;
}

// What the ffmpeg command line makes of the same bytes.
std::vector<QByteArray> commandLineDecode(const DamageCase& c, const Damaged& d)
{
    const QString path = dataDir() + "/" + QString::fromStdString(damageCaseName({c, 0})) +
                         (c.clip->code == 'e' ? ".hevc" : ".h264");
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    for (const QByteArray& unit : d.units)
        file.write(unit);
    file.close();
    // One thread, as the library decodes (frame threads conceal differently); passthrough,
    // or the command line repeats pictures to fill the gaps.
    return ffmpegFrames(path, 320, 240, QStringLiteral("yuv420p"), QStringLiteral("-fps_mode passthrough"),
                        QStringLiteral("-threads 1"));
}

class DamageTest : public testing::TestWithParam<DamageCase> {};

TEST_P(DamageTest, ShowsWhatFFmpegShowsAndAnswersEveryImageOnce)
{
    const DamageCase& c = GetParam();
    const std::vector<Packet>& packets = clipUnits(*c.clip);
    ASSERT_EQ(packets.size(), 40u);
    const Damaged d = damage(packets, c.damage, c.picture);
    const std::vector<QByteArray> reference = commandLineDecode(c, d);
    const std::vector<Image> images = toCameraImages(d, c.clip->code, c.nalCut);

    std::vector<quint64> failed;
    const std::vector<VideoFrame> frames = decodeImages(images, &failed);
    // Not a frozen stream: at least every picture the command line shows, exactly those.
    ASSERT_GE(frames.size(), reference.size());
    ASSERT_EQ(frames.size(), reference.size());
    // FFmpeg does not conceal H.265: what a cut I-frame lacks stays as the picture buffer
    // held it, in its whole group of pictures, and cannot be compared.
    const bool undefined = c.clip->code == 'e' && c.damage == Damage::Truncate && packets[size_t(c.picture)].key;
    for (size_t k = 0; k < frames.size(); ++k)
        if (!undefined || int(k) / 20 != c.picture / 20)
            ASSERT_EQ(maxDiffYuv420p(frames[k], reference[k], 320, 240), 0) << "picture " << k;

    // Each image with a slice of its own ends once: in a picture or as failed.
    std::map<quint64, int> answers;
    for (const VideoFrame& f : frames)
        ++answers[f.id()];
    for (quint64 id : failed)
        ++answers[id];
    for (const Image& image : images) {
        const bool opensPicture = !c.nalCut || answers.count(image.id());
        if (opensPicture)
            EXPECT_EQ(answers[image.id()], 1) << "image " << image.id();
    }
    if (!c.nalCut)
        EXPECT_EQ(answers.size(), images.size());
}

INSTANTIATE_TEST_SUITE_P(Damage, DamageTest, testing::ValuesIn(damageCases()), damageCaseName);

}  // namespace
