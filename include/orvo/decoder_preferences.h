#pragma once
#include "orvo/export.h"
// Process-wide switches that choose decoding paths and camera repairs. In memory only.
// Fields are plain values without locks: set them at start-up, before decoding starts;
// a later change is seen by each reader at some later image (decoder choices at the
// next creation of a format decoder).
namespace orvo {

class ORVO_EXPORT DecoderPreferences {
public:
    static DecoderPreferences* instance();
    DecoderPreferences& operator=(const DecoderPreferences&) = default;

    bool isDecodeMJPEGThroughQImage() { return decodeMJPEGThroughQImage_; }
    void decodeMJPEGThroughQImage(bool on) { decodeMJPEGThroughQImage_ = on; }
    bool isUsedMxPEGNative() { return useMxPEGNative_; }
    void useMxPEGNative(bool on) { useMxPEGNative_ = on; }
    bool isLookForNALsH264() { return lookForNALsH264_; }
    void lookForNALsH264(bool on) { lookForNALsH264_ = on; }
    bool isRemoveLastExtraByteH264() { return removeLastExtraByteH264_; }
    void removeLastExtraByteH264(bool on) { removeLastExtraByteH264_ = on; }
    bool isRemoveDoubleStartCodesH264() { return removeDoubleStartCodesH264_; }
    void removeDoubleStartCodesH264(bool on) { removeDoubleStartCodesH264_ = on; }
    bool isSingleThreadedDecoding() { return singleThreadedDecoding_; }
    void singleThreadedDecoding(bool on) { singleThreadedDecoding_ = on; }
    bool isBitRateToleranceAdjustement() { return bitRateToleranceAdjustment_; }
    void adjustBitRateTolerance(bool on) { bitRateToleranceAdjustment_ = on; }
    bool jpeg2000passthrough() { return jpeg2000passthrough_; }
    void setJpeg2000passthrough(bool on) { jpeg2000passthrough_ = on; }
    bool jpeg2000codestream() { return jpeg2000codestream_; }
    void setJpeg2000codestream(bool on) { jpeg2000codestream_ = on; }
    bool jpeg2000display_atoms() { return jpeg2000displayAtoms_; }
    void setJpeg2000display_atoms(bool on) { jpeg2000displayAtoms_ = on; }
    bool useFFMPEGEncodeAvInterleavedWriteFrame() const { return interleavedWriteFrame_; }
    void setUseFFMPEGEncodeAvInterleavedWriteFrame(bool on) { interleavedWriteFrame_ = on; }
    bool isDumpImagesEnabled() const { return dumpImages_; }
    void setDumpImagesEnabled(bool on) { dumpImages_ = on; }
    bool isIMVDewarperEnabled() { return imvDewarper_; }
    void setIMVDewarperEnabled(bool on) { imvDewarper_ = on; }
    bool isTemporaryQimageForIMVDewarperEnabled() { return imvTemporaryQimage_; }
    void setUseTemporaryQimageForIMVDewarperEnabled(bool on) { imvTemporaryQimage_ = on; }
    bool isTimingForIMVDewarperEnabled() { return imvTiming_; }
    void setUseTimingForIMVDewarperEnabled(bool on) { imvTiming_ = on; }
    bool isCheckImageForIMVDewarperEnabled() { return imvCheckImage_; }
    void setCheckImageForIMVDewarperEnabled(bool on) { imvCheckImage_ = on; }
    bool isPaningDewarpingDowngradeResolutionEnabled() const { return panningDowngradesResolution_; }
    void setPaningDewarpingDowngradeResolutionEnabled(bool on) { panningDowngradesResolution_ = on; }
    int badCastFrom() const { return badCastFrom_; }
    void setBadCastFrom(int v) { badCastFrom_ = v; }

    // Zero-copy decoding: frames of yuv420p pictures wrap FFmpeg's own reference-counted
    // buffers instead of copying them (bytes per line are then FFmpeg's). Such frames are
    // read-only: the decoder may still predict later pictures from them. They stay valid
    // after the decoder is gone. Read at every image.
    bool isZeroCopyDecoding() const { return zeroCopyDecoding_; }
    void setZeroCopyDecoding(bool on) { zeroCopyDecoding_ = on; }

private:
    DecoderPreferences() = default;
    DecoderPreferences(const DecoderPreferences&) = default;
    static DecoderPreferences* pref;  // unused: the instance is a function-local static

    bool decodeMJPEGThroughQImage_ = false;
    bool useMxPEGNative_ = false;
    bool lookForNALsH264_ = false;
    bool removeLastExtraByteH264_ = true;
    bool removeDoubleStartCodesH264_ = true;
    bool singleThreadedDecoding_ = false;
    bool bitRateToleranceAdjustment_ = true;
    bool jpeg2000passthrough_ = true;
    bool jpeg2000codestream_ = false;
    bool jpeg2000displayAtoms_ = false;
    bool interleavedWriteFrame_ = false;
    bool dumpImages_ = false;
    bool imvDewarper_ = false;
    bool imvTemporaryQimage_ = false;
    bool imvTiming_ = false;
    bool imvCheckImage_ = false;
    bool panningDowngradesResolution_ = true;
    int badCastFrom_ = 0;
    bool zeroCopyDecoding_ = false;
};

}  // namespace orvo
