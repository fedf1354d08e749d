#include "decoders/key_picture.h"

#include "decoders/jpeg_header.h"
#include "decoders/mpeg4_header.h"

namespace orvo {

bool keyPictureSize(AVCodecID codec, const unsigned char* data, int size, int* width, int* height)
{
    switch (codec) {
    case AV_CODEC_ID_MJPEG: return jpegPictureSize(data, size, width, height);
    case AV_CODEC_ID_MXPEG: return mxpegKeyPictureSize(data, size, width, height);
    case AV_CODEC_ID_MPEG4: return mpeg4KeyPictureSize(data, size, width, height);
    default: return false;
    }
}

bool KeyPictures::at(const unsigned char* data, int size, int* width, int* height, QByteArray* missing)
{
    missing->clear();
    if (codec_ == AV_CODEC_ID_MPEG4)
        return mpeg4_.keyPicture(data, size, width, height, missing);
    return keyPictureSize(codec_, data, size, width, height);
}

}  // namespace orvo
