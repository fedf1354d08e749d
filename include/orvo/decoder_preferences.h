#pragma once
#include "orvo/export.h"
// Process-wide switches that choose decoding paths and camera repairs. In memory only.
// Fields are atomic (texts: behind a lock) and read without ordering (pool threads read
// some at every image):
// a change is seen by each reader at some later image (decoder choices at the next
// creation of a format decoder).
#include <atomic>
#include <mutex>
#include <string>

namespace orvo {

// Whether stream decoders (H.264, H.265, MPEG-2, MPEG-4, Motion JPEG through FFmpeg) use the
// GPU's video engine through FFmpeg's hardware decoding.
enum class HardwareDecoding {
    Off,       // software only (the default)
    Auto,      // the engine where the device opens and it supports the stream, else software;
               // a stream that loses the engine goes on in software (see README)
    Required,  // the engine or nothing: a decoder that cannot have it fails, with the reason
};

// What a stream decoder (H.264, H.265, MPEG-2/4) does with a picture that FFmpeg decoded
// with errors (a lost or corrupt slice, concealed from its neighbours and references).
enum class DamagedPictures {
    Show,             // hand it out as FFmpeg shows it, marked VideoFrame::isDamaged()
    WaitForKeyFrame,  // drop it and every picture up to the next undamaged key picture;
                      // each image dropped is answered by an error
};

class ORVO_EXPORT DecoderPreferences {
public:
    static DecoderPreferences* instance();
    DecoderPreferences& operator=(const DecoderPreferences&) = default;

    bool isDecodeMJPEGThroughQImage() { return decodeMJPEGThroughQImage_.get(); }
    void decodeMJPEGThroughQImage(bool on) { decodeMJPEGThroughQImage_.set(on); }
    bool isUsedMxPEGNative() { return useMxPEGNative_.get(); }
    void useMxPEGNative(bool on) { useMxPEGNative_.set(on); }
    bool isLookForNALsH264() { return lookForNALsH264_.get(); }
    void lookForNALsH264(bool on) { lookForNALsH264_.set(on); }
    bool isRemoveLastExtraByteH264() { return removeLastExtraByteH264_.get(); }
    void removeLastExtraByteH264(bool on) { removeLastExtraByteH264_.set(on); }
    bool isRemoveDoubleStartCodesH264() { return removeDoubleStartCodesH264_.get(); }
    void removeDoubleStartCodesH264(bool on) { removeDoubleStartCodesH264_.set(on); }
    bool isSingleThreadedDecoding() { return singleThreadedDecoding_.get(); }
    void singleThreadedDecoding(bool on) { singleThreadedDecoding_.set(on); }
    bool isBitRateToleranceAdjustement() { return bitRateToleranceAdjustment_.get(); }
    void adjustBitRateTolerance(bool on) { bitRateToleranceAdjustment_.set(on); }
    bool jpeg2000passthrough() { return jpeg2000passthrough_.get(); }
    void setJpeg2000passthrough(bool on) { jpeg2000passthrough_.set(on); }
    bool jpeg2000codestream() { return jpeg2000codestream_.get(); }
    void setJpeg2000codestream(bool on) { jpeg2000codestream_.set(on); }
    bool jpeg2000display_atoms() { return jpeg2000displayAtoms_.get(); }
    void setJpeg2000display_atoms(bool on) { jpeg2000displayAtoms_.set(on); }
    bool useFFMPEGEncodeAvInterleavedWriteFrame() const { return interleavedWriteFrame_.get(); }
    void setUseFFMPEGEncodeAvInterleavedWriteFrame(bool on) { interleavedWriteFrame_.set(on); }
    bool isDumpImagesEnabled() const { return dumpImages_.get(); }
    void setDumpImagesEnabled(bool on) { dumpImages_.set(on); }
    bool isIMVDewarperEnabled() { return imvDewarper_.get(); }
    void setIMVDewarperEnabled(bool on) { imvDewarper_.set(on); }
    bool isTemporaryQimageForIMVDewarperEnabled() { return imvTemporaryQimage_.get(); }
    void setUseTemporaryQimageForIMVDewarperEnabled(bool on) { imvTemporaryQimage_.set(on); }
    bool isTimingForIMVDewarperEnabled() { return imvTiming_.get(); }
    void setUseTimingForIMVDewarperEnabled(bool on) { imvTiming_.set(on); }
    bool isCheckImageForIMVDewarperEnabled() { return imvCheckImage_.get(); }
    void setCheckImageForIMVDewarperEnabled(bool on) { imvCheckImage_.set(on); }
    bool isPaningDewarpingDowngradeResolutionEnabled() const { return panningDowngradesResolution_.get(); }
    void setPaningDewarpingDowngradeResolutionEnabled(bool on) { panningDowngradesResolution_.set(on); }
    int badCastFrom() const { return badCastFrom_.get(); }
    void setBadCastFrom(int v) { badCastFrom_.set(v); }

    // Zero-copy decoding: frames of yuv420p pictures wrap FFmpeg's own reference-counted
    // buffers instead of copying them (bytes per line are then FFmpeg's, as every frame
    // reports them). Their planes are read-only underneath (the decoder may still predict
    // later pictures from them): the first write into such a frame gives it planes of its
    // own (copy on write, see video_frame.h). They stay valid after the decoder is gone.
    // Read at every image. On by default: the copy was the largest cost per picture
    // that FFmpeg itself does not have (bench_multistream, bench_decode). A client that
    // keeps many frames alive keeps as many of the decoder's buffers.
    bool isZeroCopyDecoding() const { return zeroCopyDecoding_.get(); }
    void setZeroCopyDecoding(bool on) { zeroCopyDecoding_.set(on); }

    // Concealed pictures are shown by default. Read when a format decoder is created.
    DamagedPictures damagedPictures() const { return damagedPictures_.get(); }
    void setDamagedPictures(DamagedPictures policy) { damagedPictures_.set(policy); }

    // Hardware decoding. Read when a format decoder is created. The device type is spelled as
    // FFmpeg spells it ("cuda", "vaapi", "vdpau", "vulkan", ...; default "cuda"); the device
    // name (empty: the default device) is what FFmpeg's device creation takes, e.g.
    // "/dev/dri/renderD128" for VAAPI or "1" for the second CUDA device.
    HardwareDecoding hardwareDecoding() const { return hardwareDecoding_.get(); }
    void setHardwareDecoding(HardwareDecoding mode) { hardwareDecoding_.set(mode); }
    std::string hardwareDeviceType() const { return hardwareDeviceType_.get(); }
    // False, and the setting unchanged, for a name the linked FFmpeg knows no device type by.
    bool setHardwareDeviceType(const std::string& type);
    std::string hardwareDeviceName() const { return hardwareDeviceName_.get(); }
    void setHardwareDeviceName(const std::string& name) { hardwareDeviceName_.set(name); }
    // H.264 and H.265 pictures from the engine equal software ones byte for byte. MPEG-2,
    // MPEG-4 Visual and Motion JPEG leave the inverse DCT to the decoder: the engine's pictures
    // differ from software ones by a little (rounding of the transform), so by default those
    // formats decode in software, saying why. On: they take the engine too. Read when a format
    // decoder is created.
    bool isApproximateHardwareDecoding() const { return approximateHardwareDecoding_.get(); }
    void setApproximateHardwareDecoding(bool on) { approximateHardwareDecoding_.set(on); }

private:
    // A text setting: read under a lock (texts cannot be atomic), copied by value.
    class Text {
    public:
        Text(const char* value) : value_(value) {}
        Text(const Text& other) : value_(other.get()) {}
        Text& operator=(const Text& other)
        {
            set(other.get());
            return *this;
        }
        std::string get() const
        {
            std::lock_guard<std::mutex> lock(mutex_);
            return value_;
        }
        void set(const std::string& value)
        {
            std::lock_guard<std::mutex> lock(mutex_);
            value_ = value;
        }

    private:
        mutable std::mutex mutex_;
        std::string value_;
    };

    // One switch: an atomic that copies by value (the preferences can be assigned whole).
    template <typename T>
    class Relaxed {
    public:
        Relaxed(T value) : value_(value) {}
        Relaxed(const Relaxed& other) : value_(other.get()) {}
        Relaxed& operator=(const Relaxed& other)
        {
            set(other.get());
            return *this;
        }
        T get() const { return value_.load(std::memory_order_relaxed); }
        void set(T value) { value_.store(value, std::memory_order_relaxed); }

    private:
        std::atomic<T> value_;
    };

    DecoderPreferences() = default;
    DecoderPreferences(const DecoderPreferences&) = default;

    Relaxed<bool> decodeMJPEGThroughQImage_{false};
    Relaxed<bool> useMxPEGNative_{false};
    Relaxed<bool> lookForNALsH264_{false};
    Relaxed<bool> removeLastExtraByteH264_{true};
    Relaxed<bool> removeDoubleStartCodesH264_{true};
    Relaxed<bool> singleThreadedDecoding_{false};
    Relaxed<bool> bitRateToleranceAdjustment_{true};
    Relaxed<bool> jpeg2000passthrough_{true};
    Relaxed<bool> jpeg2000codestream_{false};
    Relaxed<bool> jpeg2000displayAtoms_{false};
    Relaxed<bool> interleavedWriteFrame_{false};
    Relaxed<bool> dumpImages_{false};
    Relaxed<bool> imvDewarper_{false};
    Relaxed<bool> imvTemporaryQimage_{false};
    Relaxed<bool> imvTiming_{false};
    Relaxed<bool> imvCheckImage_{false};
    Relaxed<bool> panningDowngradesResolution_{true};
    Relaxed<int> badCastFrom_{0};
    Relaxed<bool> zeroCopyDecoding_{true};
    Relaxed<DamagedPictures> damagedPictures_{DamagedPictures::Show};
    Relaxed<HardwareDecoding> hardwareDecoding_{HardwareDecoding::Off};
    Relaxed<bool> approximateHardwareDecoding_{false};
    Text hardwareDeviceType_{"cuda"};
    Text hardwareDeviceName_{""};
};

}  // namespace orvo
