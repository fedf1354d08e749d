#pragma once
// hw::Scaler: pictures of the GPU's engine reduced on the GPU before their download, so that a
// tile-sized picture crosses the bus and the CPU handles a sixteenth of the samples. Built on
// FFmpeg's filter graph with the engine's own scaling filter (cuda: scale_cuda; vaapi,
// vulkan: theirs); the emulated engine of tests runs the same graph with swscale's filter.
//
// Large reductions go in exact halvings (each a 2x2 average on cuda's bilinear sampling)
// and one last bilinear step: one bilinear step from 1080p to a 270-line tile would take one
// source sample in four and alias. Target sizes are even (NV12's chroma); the caller fits
// other sizes in software.
//
// One scaler per session, used from the thread that decodes.
extern "C" {
#include <libavutil/frame.h>
#include <libavutil/hwcontext.h>
}

#include <string>

struct AVFilterGraph;
struct AVFilterContext;

namespace orvo::hw {

class Scaler {
public:
    // `type`: the engine's device type; AV_HWDEVICE_TYPE_NONE for pictures in memory.
    explicit Scaler(AVHWDeviceType type);
    ~Scaler();
    Scaler(const Scaler&) = delete;
    Scaler& operator=(const Scaler&) = delete;

    // Whether the engine of `type` has a scaling filter here; `error` says why not.
    static bool available(AVHWDeviceType type, std::string* error);

    // `in` reduced to width x height (even) into `out`. Negative: an error (the picture is
    // untouched and can still be downloaded in full).
    int scale(const AVFrame* in, int width, int height, AVFrame* out);

private:
    int build(const AVFrame* in, int width, int height);
    void release();

    AVHWDeviceType type_;
    AVFilterGraph* graph_ = nullptr;
    AVFilterContext* source_ = nullptr;
    AVFilterContext* sink_ = nullptr;
    // What the graph was built for.
    const void* frames_ = nullptr;
    int format_ = -1, inWidth_ = 0, inHeight_ = 0, outWidth_ = 0, outHeight_ = 0;
};

}  // namespace orvo::hw
