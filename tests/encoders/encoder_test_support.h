#pragma once
// Helpers of the encoder tests: synthetic pictures and tones, stdout/stderr capture,
// ffprobe and ffmpeg as independent readers of the files written.
#include "common/test_streams.h"
#include "orvo/encoder.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <cmath>
#include <cstring>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

namespace orvo::test {

// Captures what is written to file descriptor 1 or 2 (printf and std::cout alike)
// between construction and text().
class CaptureFd {
public:
    explicit CaptureFd(int fd) : fd_(fd)
    {
        std::fflush(nullptr);
        path_ = dataDir().toStdString() + "/capture." + std::to_string(::getpid()) + "." + std::to_string(fd);
        saved_ = ::dup(fd_);
        FILE* f = std::fopen(path_.c_str(), "w");
        ::dup2(::fileno(f), fd_);
        std::fclose(f);
    }
    ~CaptureFd() { restore(); }
    std::string text()
    {
        restore();
        std::string out;
        if (FILE* f = std::fopen(path_.c_str(), "r")) {
            char buf[4096];
            size_t n;
            while ((n = std::fread(buf, 1, sizeof buf, f)) > 0)
                out.append(buf, n);
            std::fclose(f);
        }
        std::remove(path_.c_str());
        return out;
    }

private:
    void restore()
    {
        if (saved_ < 0)
            return;
        std::fflush(nullptr);
        ::dup2(saved_, fd_);
        ::close(saved_);
        saved_ = -1;
    }
    int fd_;
    int saved_ = -1;
    std::string path_;
};

// A packed yuv420p picture: smooth gradients with a moving bright square.
inline std::vector<unsigned char> makePicture(int width, int height, int index)
{
    const int cw = (width + 1) / 2, ch = (height + 1) / 2;
    std::vector<unsigned char> p(width * height + 2 * cw * ch);
    unsigned char* y = p.data();
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c)
            y[r * width + c] = static_cast<unsigned char>(40 + (c * 120) / width + (r * 60) / height);
    const int box = std::max(8, height / 4);
    const int bx = (index * 3) % std::max(1, width - box), by = (index * 2) % std::max(1, height - box);
    for (int r = by; r < by + box; ++r)
        for (int c = bx; c < bx + box; ++c)
            y[r * width + c] = 220;
    unsigned char* u = y + width * height;
    unsigned char* v = u + cw * ch;
    for (int r = 0; r < ch; ++r)
        for (int c = 0; c < cw; ++c) {
            u[r * cw + c] = static_cast<unsigned char>(90 + (c * 60) / cw);
            v[r * cw + c] = static_cast<unsigned char>(160 - (r * 50) / ch);
        }
    return p;
}

inline int encodePicture(Encoder& enc, std::vector<unsigned char>& p, int width, int height)
{
    const int cw = (width + 1) / 2, ch = (height + 1) / 2;
    unsigned char* y = p.data();
    return enc.encode(y, y + width * height, y + width * height + cw * ch, width, cw, cw, nullptr, 0);
}

// PSNR of the luma planes of two packed 4:2:0 pictures (99 when identical).
inline double psnrY(const unsigned char* a, const unsigned char* b, int width, int height)
{
    double se = 0;
    for (int i = 0; i < width * height; ++i) {
        const double d = double(a[i]) - double(b[i]);
        se += d * d;
    }
    if (se == 0)
        return 99;
    return 10 * std::log10(255.0 * 255.0 / (se / (width * height)));
}

// Interleaved S16 sine of `channels` channels, continuing at sample `first`.
inline std::vector<short> tone(qint64 first, int samples, int channels, int sampleRate, double amplitude = 8000)
{
    std::vector<short> s(static_cast<size_t>(samples) * channels);
    for (int i = 0; i < samples; ++i) {
        const short v = static_cast<short>(amplitude * std::sin(2 * M_PI * 440.0 * double(first + i) / sampleRate));
        for (int c = 0; c < channels; ++c)
            s[static_cast<size_t>(i) * channels + c] = v;
    }
    return s;
}

inline QByteArray run(const QString& program, const QStringList& args)
{
    QProcess p;
    p.start(program, args);
    p.waitForFinished(120000);
    return p.readAllStandardOutput();
}

// ffprobe's JSON description of streams and format, with frames counted.
inline QJsonObject ffprobe(const QString& path)
{
    const QByteArray out = run(QStringLiteral("ffprobe"),
                               {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-print_format"),
                                QStringLiteral("json"), QStringLiteral("-count_frames"),
                                QStringLiteral("-show_streams"), QStringLiteral("-show_format"), path});
    return QJsonDocument::fromJson(out).object();
}

inline QJsonObject streamOfType(const QJsonObject& probe, const QString& type)
{
    for (const QJsonValue& s : probe.value(QStringLiteral("streams")).toArray())
        if (s.toObject().value(QStringLiteral("codec_type")).toString() == type)
            return s.toObject();
    return QJsonObject();
}

inline double number(const QJsonObject& o, const char* key)
{
    const QJsonValue v = o.value(QLatin1String(key));
    return v.isString() ? v.toString().toDouble() : v.toDouble();
}

// Raw decode of the first audio stream as mono S16 by the ffmpeg command line.
inline std::vector<short> ffmpegAudio(const QString& path)
{
    const QByteArray raw = run(QStringLiteral("ffmpeg"),
                               {QStringLiteral("-nostdin"), QStringLiteral("-v"), QStringLiteral("error"),
                                QStringLiteral("-i"), path, QStringLiteral("-map"), QStringLiteral("0:a:0"),
                                QStringLiteral("-ac"), QStringLiteral("1"), QStringLiteral("-f"),
                                QStringLiteral("s16le"), QStringLiteral("-")});
    std::vector<short> s(raw.size() / 2);
    std::memcpy(s.data(), raw.constData(), s.size() * 2);
    return s;
}

}  // namespace orvo::test
