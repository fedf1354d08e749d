#include "decoders/mpeg4_header.h"

namespace orvo {
namespace {

constexpr unsigned char kVosStart = 0xb0, kGovStart = 0xb3, kVopStart = 0xb6;

// Reads bits MSB first; a read past the end fails the whole parse (ok() turns false).
class BitReader {
public:
    BitReader(const unsigned char* data, int size) : data_(data), bits_(bitCount(size)) {}
    unsigned read(int n)
    {
        unsigned v = 0;
        for (int i = 0; i < n; ++i) {
            if (pos_ >= bits_) {
                ok_ = false;
                return 0;
            }
            v = (v << 1) | ((data_[pos_ >> 3] >> (7 - (pos_ & 7))) & 1);
            ++pos_;
        }
        return v;
    }
    bool marker() { return read(1) == 1; }
    bool ok() const { return ok_; }

private:
    static long long bitCount(int size) { return size > 0 ? static_cast<long long>(size) * 8 : 0; }
    const unsigned char* data_;
    long long bits_;
    long long pos_ = 0;
    bool ok_ = true;
};

// Offset just past the next start code prefix (00 00 01) at or after `from`; -1 when none.
int nextStartCode(const unsigned char* data, int size, int from)
{
    for (int i = from < 0 ? 0 : from; i + 3 < size; ++i)
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1)
            return i + 3;
    return -1;
}

// The size in a VOL header whose bytes (after its start code) are data[0..size).
bool volSize(const unsigned char* data, int size, int* width, int* height)
{
    BitReader bits(data, size);
    bits.read(1);  // random_accessible_vol
    bits.read(8);  // video_object_type_indication
    int verid = 1;
    if (bits.read(1)) {  // is_object_layer_identifier
        verid = int(bits.read(4));
        bits.read(3);  // priority
    }
    if (bits.read(4) == 0xf)  // aspect_ratio_info: extended PAR
        bits.read(16);
    if (bits.read(1)) {  // vol_control_parameters
        bits.read(3);    // chroma_format, low_delay
        if (bits.read(1)) {  // vbv_parameters: 79 bits with their markers
            bits.read(16);
            bits.read(16);
            bits.read(16);
            bits.read(3);
            bits.read(12);
            bits.read(16);
        }
    }
    const unsigned shape = bits.read(2);
    if (shape == 3 && verid != 1)  // greyscale: shape extension
        bits.read(4);
    if (!bits.marker())
        return false;
    const unsigned resolution = bits.read(16);  // vop_time_increment_resolution
    if (resolution == 0 || !bits.marker())
        return false;
    if (bits.read(1)) {  // fixed_vop_rate: an increment of as many bits as the resolution needs
        int n = 1;
        while (n < 16 && (1u << n) < resolution)
            ++n;
        bits.read(n);
    }
    if (shape != 0)  // only rectangular pictures declare a size
        return false;
    if (!bits.marker())
        return false;
    const int w = int(bits.read(13));
    if (!bits.marker())
        return false;
    const int h = int(bits.read(13));
    if (!bits.marker() || !bits.ok() || w <= 0 || h <= 0)
        return false;
    *width = w;
    *height = h;
    return true;
}

struct Scan {
    bool key = false;       // an I-VOP follows a VOL of this payload, or one before it
    bool anyVol = false;    // the payload holds a VOL header, readable or not
    bool vol = false;       // its last one before the first VOP is of a rectangular picture
    bool intra = false;     // its first VOP is an I-VOP
    int headerStart = -1;   // first header start code (VOS, VO, VOL) before the first VOP
    int headerEnd = -1;     // first group or VOP start code after them
    int width = 0, height = 0;
};

Scan scan(const unsigned char* data, int size)
{
    Scan s;
    if (!data || size < 5)
        return s;
    for (int p = nextStartCode(data, size, 0); p >= 0 && p < size; p = nextStartCode(data, size, p)) {
        const unsigned char code = data[p];
        const bool header = code <= 0x2f || code == kVosStart;  // VO (00-1f), VOL (20-2f), VOS
        if (header && s.headerStart < 0)
            s.headerStart = p - 3;
        if (code >= 0x20 && code <= 0x2f) {
            s.anyVol = true;
            // Its bits end where the next start code begins.
            const int next = nextStartCode(data, size, p);
            const int end = next >= 0 ? next - 3 : size;
            s.vol = volSize(data + p + 1, end - p - 1, &s.width, &s.height);
        }
        if ((code == kGovStart || code == kVopStart) && s.vol && s.headerEnd < 0)
            s.headerEnd = p - 3;
        if (code == kVopStart) {
            // vop_coding_type, the two bits after the start code: 0 is intra.
            s.intra = p + 1 < size && (data[p + 1] >> 6) == 0;
            break;
        }
    }
    s.key = s.vol && s.intra;
    return s;
}

}  // namespace

bool mpeg4KeyPictureSize(const unsigned char* data, int size, int* width, int* height)
{
    if (!width || !height)
        return false;
    const Scan s = scan(data, size);
    if (!s.key)
        return false;
    *width = s.width;
    *height = s.height;
    return true;
}

bool Mpeg4Headers::keyPicture(const unsigned char* data, int size, int* width, int* height, QByteArray* missing)
{
    const Scan s = scan(data, size);
    if (s.vol) {
        // A VOL-only payload counts too: its bytes end with the payload.
        const int end = s.headerEnd >= 0 ? s.headerEnd : size;
        headers_ = QByteArray(reinterpret_cast<const char*>(data) + s.headerStart, end - s.headerStart);
        width_ = s.width;
        height_ = s.height;
    }
    // A VOL of its own that cannot be read (another shape, damage) is what FFmpeg will use:
    // headers remembered from before do not speak for it.
    if (!s.intra || headers_.isEmpty() || (s.anyVol && !s.vol))
        return false;
    *width = width_;
    *height = height_;
    if (missing)
        *missing = s.vol ? QByteArray() : headers_;
    return true;
}

}  // namespace orvo
