#pragma once
// Helpers of the encoder tests: synthetic pictures and tones, ffprobe and ffmpeg as
// independent readers of the files written, a recording backend.
#include "common/test_streams.h"
#include "orvo/encoder.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace orvo::test {

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

// Encodes a picture made by makePicture through an Encoder or a backend.
template <typename E>
int encodePicture(E& enc, std::vector<unsigned char>& p, int width, int height, unsigned char* out = nullptr,
                  int outSize = 0)
{
    const int cw = (width + 1) / 2, ch = (height + 1) / 2;
    unsigned char* y = p.data();
    return enc.encode(y, y + width * height, y + width * height + cw * ch, width, cw, cw, out, outSize);
}

// PSNR of the luma planes of two packed 4:2:0 pictures (99 when identical).
inline double psnrY(const unsigned char* a, const unsigned char* b, int width, int height)
{
    double se = 0;
    for (int i = 0; i < width * height; ++i)
        se += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
    return se == 0 ? 99 : 10 * std::log10(255.0 * 255.0 / (se / (width * height)));
}

// Interleaved S16 sines of `channels` channels, continuing at sample `first`: channel c
// carries toneHz(c), so that a swapped or mixed channel shows.
inline double toneHz(int channel) { return channel == 0 ? 440.0 : 1500.0; }
inline std::vector<short> tone(qint64 first, int samples, int channels, int sampleRate, double amplitude = 8000)
{
    std::vector<short> s(static_cast<size_t>(samples) * channels);
    for (int i = 0; i < samples; ++i)
        for (int c = 0; c < channels; ++c)
            s[static_cast<size_t>(i) * channels + c] =
                static_cast<short>(amplitude * std::sin(2 * M_PI * toneHz(c) * double(first + i) / sampleRate));
    return s;
}

// Power of one frequency in a signal (Goertzel), normalised by the length.
inline double powerAt(const std::vector<short>& s, double hz, int sampleRate)
{
    const double coeff = 2 * std::cos(2 * M_PI * hz / sampleRate);
    double s1 = 0, s2 = 0;
    for (short v : s) {
        const double s0 = v + coeff * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    return (s1 * s1 + s2 * s2 - coeff * s1 * s2) / double(s.size()) / double(s.size());
}

// ffprobe's JSON description of streams and format, with frames counted.
inline QJsonObject ffprobe(const QString& path)
{
    const QByteArray out = runProgram(QStringLiteral("ffprobe"),
                               {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-print_format"),
                                QStringLiteral("json"), QStringLiteral("-count_frames"),
                                QStringLiteral("-show_streams"), QStringLiteral("-show_format"), path},
                                      false);
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

// One channel of the first audio stream as S16, decoded by the ffmpeg command line.
inline std::vector<short> ffmpegAudio(const QString& path, int channel = 0)
{
    const QByteArray raw = runProgram(QStringLiteral("ffmpeg"),
                                      {"-nostdin", "-v", "error", "-i", path, "-map", "0:a:0", "-af",
                                       QStringLiteral("pan=mono|c0=c%1").arg(channel), "-f", "s16le", "-"});
    std::vector<short> s(raw.size() / 2);
    std::memcpy(s.data(), raw.constData(), s.size() * 2);
    return s;
}

// A backend that records what the facade and the audio buffer ask of it. Track ends are
// counted in samples at `rate`: the video end is set by the test, the audio end grows by
// one frame per encode_audio.
class FakeBackend : public AbstractEncoder {
public:
    FakeBackend(int frameSize, int rate, int* destroyed = nullptr, int engine = 1)
        : frameSize(frameSize), rate(rate), destroyed(destroyed), engine(engine) {}
    ~FakeBackend() override
    {
        if (destroyed)
            ++*destroyed;
    }

    bool open(const std::string&, const std::string&, unsigned int, int, int, int, int, int, int, int, int, int,
              unsigned int, int, int, int, void*, EncoderError&, bool) override
    {
        return false;
    }
    int compareAudioVideoPTS(int& whole, int& num, int& den, bool& exact) const override
    {
        const qint64 diff = audioEnd - videoEnd;
        whole = static_cast<int>(diff / rate);
        num = static_cast<int>(diff % rate);
        den = rate;
        exact = true;
        return diff == 0 ? 0 : diff > 0 ? static_cast<int>(std::abs(whole)) + 1 : -(std::abs(whole) + 1);
    }
    bool hasVideo() const override { return true; }
    bool hasAudio() const override { return audio; }
    int getAudioInputFrameSize() const override { return frameSize; }
    int getAudioSampleRate() const override { return rate; }
    qint64 behindAudioSamples() const override { return videoEnd - audioEnd; }
    int encode(unsigned char*, unsigned char*, unsigned char*, unsigned int, unsigned int, unsigned int,
               unsigned char*, int) override
    {
        return 0;
    }
    int output_encoded_video(unsigned char*, int size) override { return size; }
    int encode_audio(short* samples, unsigned char*, int) override
    {
        frames.push_back(samples);
        contents.emplace_back(samples, samples + frameSize);
        audioEnd += frameSize;
        return 10;
    }
    void close() override {}
    int engine_id() const override { return engine; }

    int frameSize;
    int rate;
    int* destroyed;
    int engine;
    bool audio = true;
    qint64 videoEnd = 0;
    qint64 audioEnd = 0;
    std::vector<const short*> frames;
    std::vector<std::vector<short>> contents;
};

}  // namespace orvo::test
