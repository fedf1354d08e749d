#include "hardware/hardware_support.h"

#include <cmath>

namespace orvo::test {

HardwareGuard::HardwareGuard()
{
    DecoderPreferences* prefs = DecoderPreferences::instance();
    mode_ = prefs->hardwareDecoding();
    approximate_ = prefs->isApproximateHardwareDecoding();
    type_ = prefs->hardwareDeviceType();
    name_ = prefs->hardwareDeviceName();
    resetHardwareStateForTesting();
    setEmulatedHardwareForTesting(false);
}

HardwareGuard::~HardwareGuard()
{
    DecoderPreferences* prefs = DecoderPreferences::instance();
    prefs->setHardwareDecoding(mode_);
    prefs->setApproximateHardwareDecoding(approximate_);
    prefs->setHardwareDeviceType(type_);
    prefs->setHardwareDeviceName(name_);
    resetHardwareStateForTesting();
    setEmulatedHardwareForTesting(false);
}

void HardwareGuard::use(HardwareDecoding mode, bool emulated, bool approximate)
{
    DecoderPreferences* prefs = DecoderPreferences::instance();
    prefs->setHardwareDecoding(mode);
    prefs->setApproximateHardwareDecoding(approximate);
    prefs->setHardwareDeviceType("cuda");
    prefs->setHardwareDeviceName("");
    setEmulatedHardwareForTesting(emulated);
}

LogLines::LogLines()
{
    LogManager::instance().setSink([this](const LogItem& item) {
        const std::lock_guard<std::mutex> lock(mutex_);
        lines_.append(item.message);
    });
}

LogLines::~LogLines() { LogManager::instance().setSink({}); }

int LogLines::count(const QString& text) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    int n = 0;
    for (const QString& line : lines_)
        n += line.contains(text) ? 1 : 0;
    return n;
}

QStringList LogLines::lines() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

namespace {

struct ClipRecipe {
    const char* name;
    quint8 code;
    const char* args;
};

// Sizes that the codecs' block sizes do not divide (cropped pictures), odd sizes, B-frames,
// full-range Motion JPEG, a cropping window on all four sides, and a change of resolution.
const ClipRecipe kRecipes[] = {
    {"hw_h264_crop.h264", 'h',
     "-f lavfi -i testsrc2=size=202x118:rate=25 -frames:v 30 -c:v libx264 -preset veryfast -bf 2 -g 10 "
     "-pix_fmt yuv420p -f h264"},
    {"hw_h264_window.h264", 'h',
     "-f lavfi -i testsrc2=size=240x136:rate=25 -frames:v 20 -c:v libx264 -preset veryfast -bf 0 -g 10 "
     "-pix_fmt yuv420p -bsf:v h264_metadata=crop_left=34:crop_right=4:crop_top=6:crop_bottom=2 -f h264"},
    // At least 144 lines and columns: the smallest H.265 picture NVIDIA's engine takes.
    {"hw_hevc_crop152.hevc", 'e',
     "-f lavfi -i testsrc2=size=198x150:rate=25 -frames:v 24 -c:v libx265 -x265-params "
     "log-level=error:bframes=2:keyint=10:min-keyint=10 -f hevc"},
    {"hw_mpeg2.m2v", 'M',
     "-f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 24 -c:v mpeg2video -bf 2 -g 10 -f mpeg2video"},
    {"hw_mpeg4.m4v", 'm', "-f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 24 -c:v mpeg4 -bf 0 -g 10 -f m4v"},
    {"hw_mjpeg_odd.avi", 'j', "-f lavfi -i testsrc2=size=101x77:rate=25 -frames:v 8 -c:v mjpeg -pix_fmt yuvj420p"},
    {"hw_h264_camera.h264", 'h',
     "-f lavfi -i testsrc2=size=176x144:rate=25 -frames:v 40 -c:v libx264 -preset veryfast -tune zerolatency "
     "-bf 0 -g 10 -keyint_min 10 -sc_threshold 0 -pix_fmt yuv420p -f h264"},
    {"hw_h264_1080p.h264", 'h',
     "-f lavfi -i testsrc2=size=1920x1080:rate=25 -frames:v 20 -c:v libx264 -preset veryfast -bf 2 -g 10 "
     "-pix_fmt yuv420p -f h264"},
    {"hw_hevc_1080p.hevc", 'e',
     "-f lavfi -i testsrc2=size=1920x1080:rate=25 -frames:v 20 -c:v libx265 -x265-params "
     "log-level=error:bframes=2:keyint=10:min-keyint=10 -f hevc"},
    {"hw_h264_large.h264", 'h',
     "-f lavfi -i testsrc2=size=320x240:rate=25 -frames:v 20 -c:v libx264 -preset veryfast -tune zerolatency "
     "-bf 0 -g 10 -pix_fmt yuv420p -f h264"},
};

std::vector<Image> imagesOf(const QString& file, quint8 code, quint64 firstId = 1)
{
    const QString path = ffmpegFile(file, QString::fromLatin1(
                                              std::find_if(std::begin(kRecipes), std::end(kRecipes),
                                                           [&](const ClipRecipe& r) { return file == r.name; })
                                                  ->args));
    return path.isEmpty() ? std::vector<Image>() : toImages(demuxVideo(path), code, firstId);
}

}  // namespace

QStringList hwClipNames(bool gpu)
{
    QStringList names;
    for (const ClipRecipe& r : kRecipes)
        if (!QString(r.name).contains("large") && !QString(r.name).contains("1080p"))
            names << r.name;
    names << "hw_h264_resize";
    if (gpu)
        names << "hw_h264_1080p.h264" << "hw_hevc_1080p.hevc";
    return names;
}

HwClip hwClip(const QString& name)
{
    HwClip clip{name, 'h', {}};
    if (name == "hw_h264_resize") {
        // Small, larger, small again: the engine's picture pool is set up anew each time.
        clip.images = imagesOf("hw_h264_camera.h264", 'h');
        std::vector<Image> large = imagesOf("hw_h264_large.h264", 'h', clip.images.size() + 1);
        std::vector<Image> small = imagesOf("hw_h264_camera.h264", 'h', clip.images.size() + large.size() + 1);
        clip.images.insert(clip.images.end(), large.begin(), large.end());
        clip.images.insert(clip.images.end(), small.begin(), small.end());
        return clip;
    }
    for (const ClipRecipe& r : kRecipes)
        if (name == r.name)
            clip.code = r.code;
    clip.images = imagesOf(name, clip.code);
    return clip;
}

void decodeAll(Decoder& decoder, const std::vector<Image>& images, Answers& a,
               const std::function<void(size_t)>& before, bool drain)
{
    auto picture = [&](const VideoFrame& f) {
        a.pictures[f.id()] = packYuv420p(f);
        a.sizes[f.id()] = QSize(f.width(), f.height());
        a.inOrder.push_back(a.pictures[f.id()]);
        a.damaged[f.id()] = f.isDamaged();
        ++a.answerCount[f.id()];
    };
    auto ended = [&] {
        for (const Decoder::EndedImage& e : decoder.takeImagesWithoutPicture()) {
            a.errors[e.image.id()] = e.reason;
            ++a.answerCount[e.image.id()];
        }
    };
    for (size_t i = 0; i < images.size(); ++i) {
        if (before)
            before(i);
        VideoFrame frame;
        const Decoder::ImageResult r = decoder.decodeImage(images[i], frame);
        if (r == Decoder::ImageResult::Picture) {
            do
                picture(frame);
            while (decoder.takePicture(frame));
        } else if (r == Decoder::ImageResult::Failed) {
            a.errors[images[i].id()] = decoder.failureReason();
            ++a.answerCount[images[i].id()];
            if (a.firstFailure.isEmpty())
                a.firstFailure = decoder.failureReason();
        }
        ended();
        a.paths.push_back(decoder.decodingPath());
    }
    VideoFrame frame;
    while (drain && decoder.drain(frame))
        picture(frame);
    ended();
}

Answers decodeAll(const std::vector<Image>& images, const std::function<void(size_t)>& before, const QSize& bound)
{
    Answers a;
    Decoder decoder;
    decoder.setMaxOutputSize(bound);
    decodeAll(decoder, images, a, before);
    return a;
}

Answers softwareDecode(const std::vector<Image>& images, const QSize& bound)
{
    DecoderPreferences* prefs = DecoderPreferences::instance();
    const HardwareDecoding mode = prefs->hardwareDecoding();
    prefs->setHardwareDecoding(HardwareDecoding::Off);
    Answers a = decodeAll(images, {}, bound);
    prefs->setHardwareDecoding(mode);
    return a;
}

void expectEachAnsweredOnce(const std::vector<Image>& images, const Answers& answers)
{
    for (const Image& image : images) {
        const auto it = answers.answerCount.find(image.id());
        EXPECT_EQ(it == answers.answerCount.end() ? 0 : it->second, 1) << "image " << image.id();
    }
    EXPECT_EQ(answers.answerCount.size(), images.size());
}

double psnr(const QByteArray& a, const QByteArray& b)
{
    if (a.size() != b.size() || a.isEmpty())
        return 0;
    double squares = 0;
    for (int i = 0; i < a.size(); ++i) {
        const int d = quint8(a[i]) - quint8(b[i]);
        squares += d * d;
    }
    return squares == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * a.size() / squares);
}

}  // namespace orvo::test
