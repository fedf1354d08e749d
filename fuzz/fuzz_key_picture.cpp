// The key-picture header parsers on their own (Motion JPEG, MxPEG, MPEG-4 Visual), without a
// decoder (fuzz_decode_mjpeg, _mxpeg and _mpeg run them in front of FFmpeg with option 0x10).
// Each chunk is parsed as each format, on an exactly sized copy so that any read past the end
// is caught.
#include "decoders/jpeg_header.h"
#include "decoders/key_picture.h"
#include "decoders/mpeg4_header.h"
#include "fuzz/fuzz_check.h"
#include "fuzz/fuzz_input.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto in = orvo::fuzz::split(data, size);
    // MPEG-4 over the chunks as one stream: headers remembered from earlier ones.
    orvo::KeyPictures stream(AV_CODEC_ID_MPEG4);
    for (const QByteArray& chunk : in.chunks) {
        const std::vector<unsigned char> bytes(chunk.begin(), chunk.end());
        const unsigned char* p = bytes.empty() ? nullptr : bytes.data();
        const int n = int(bytes.size());
        int w = 0, h = 0;
        // A size is only ever given with success, and it is a real one.
        if (orvo::jpegPictureSize(p, n, &w, &h))
            FUZZ_CHECK(w > 0 && h > 0);
        int mw = 0, mh = 0;
        if (orvo::mxpegKeyPictureSize(p, n, &mw, &mh)) {
            FUZZ_CHECK(mw > 0 && mh > 0);
            // An MxPEG key picture is a JPEG picture of the same size.
            FUZZ_CHECK(orvo::jpegPictureSize(p, n, &w, &h) && w == mw && h == mh);
        }
        if (orvo::mpeg4KeyPictureSize(p, n, &w, &h))
            FUZZ_CHECK(w > 0 && h > 0);
        for (AVCodecID id : {AV_CODEC_ID_MJPEG, AV_CODEC_ID_MXPEG, AV_CODEC_ID_MPEG4, AV_CODEC_ID_H264})
            if (orvo::keyPictureSize(id, p, n, &w, &h))
                FUZZ_CHECK(id != AV_CODEC_ID_H264 && w > 0 && h > 0);
        QByteArray missing;
        if (stream.at(p, n, &w, &h, &missing)) {
            FUZZ_CHECK(w > 0 && h > 0);
            // Headers from before stand in only for a payload that has no readable ones
            // itself; what the joined bytes decode to is FFmpeg's to judge.
            if (!missing.isEmpty()) {
                int own = 0;
                FUZZ_CHECK(!orvo::mpeg4KeyPictureSize(p, n, &own, &own));
            }
        }
        const int factor = orvo::lowresFactorFor(w, h, 1 + (in.options & 0x0f) * 40, 1 + (in.options >> 4) * 30, 3);
        FUZZ_CHECK(factor >= 0 && factor <= 3);
    }
    return 0;
}
