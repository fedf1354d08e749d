#include "backends/hw_scaler.h"

#include "backends/filter_library.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include <cstdio>
#include <vector>

namespace orvo::hw {
namespace {

struct ScalingFilter {
    const char* name;
    const char* options;  // appended to w=..:h=..
    bool halving;         // reduce in exact halvings first (the filter samples 2x2 at most)
};

// The engines' scaling filters; an engine not named here has none (its pictures are fitted in
// software after the download).
bool filterFor(AVHWDeviceType type, ScalingFilter* filter)
{
    switch (type) {
    case AV_HWDEVICE_TYPE_CUDA:
        *filter = {"scale_cuda", ":interp_algo=bilinear", true};
        return true;
    case AV_HWDEVICE_TYPE_VAAPI:
        *filter = {"scale_vaapi", "", false};
        return true;
    case AV_HWDEVICE_TYPE_VULKAN:
        *filter = {"scale_vulkan", "", false};
        return true;
    case AV_HWDEVICE_TYPE_NONE:
        *filter = {"scale", ":flags=bilinear", true};
        return true;
    default:
        return false;
    }
}

struct Step {
    int width, height;
};

std::vector<Step> stepsOf(int width, int height, int toWidth, int toHeight, bool halving)
{
    std::vector<Step> steps;
    while (halving && width % 2 == 0 && height % 2 == 0 && width / 2 >= toWidth && height / 2 >= toHeight) {
        width /= 2;
        height /= 2;
        steps.push_back({width, height});
    }
    if (width != toWidth || height != toHeight)
        steps.push_back({toWidth, toHeight});
    return steps;
}

}  // namespace

Scaler::Scaler(AVHWDeviceType type) : type_(type) {}

Scaler::~Scaler() { release(); }

bool Scaler::available(AVHWDeviceType type, std::string* error)
{
    ScalingFilter filter;
    if (!filterFor(type, &filter)) {
        const char* name = av_hwdevice_get_type_name(type);
        *error = std::string("FFmpeg has no scaling filter for ") + (name ? name : "the engine");
        return false;
    }
    const FilterLibrary* library = filterLibrary(error);
    if (!library)
        return false;
    if (!library->getByName(filter.name)) {
        *error = std::string("the linked FFmpeg has no ") + filter.name;
        return false;
    }
    return true;
}

void Scaler::release()
{
    if (graph_)
        filterLibrary(nullptr)->graphFree(&graph_);
    source_ = sink_ = nullptr;
    frames_ = nullptr;
}

int Scaler::build(const AVFrame* in, int width, int height)
{
    release();
    const FilterLibrary* f = filterLibrary(nullptr);
    ScalingFilter filter;
    if (!f || !filterFor(type_, &filter))
        return AVERROR(ENOSYS);
    if (!(graph_ = f->graphAlloc()))
        return AVERROR(ENOMEM);
    graph_->nb_threads = 1;  // the decoding thread is the pool's: no threads of its own
    source_ = f->graphAllocFilter(graph_, f->getByName("buffer"), "in");
    AVBufferSrcParameters* parameters = f->sourceParametersAlloc();
    if (!source_ || !parameters) {
        av_free(parameters);
        return AVERROR(ENOMEM);
    }
    parameters->format = in->format;
    parameters->width = in->width;
    parameters->height = in->height;
    parameters->time_base = AVRational{1, 90000};
    parameters->sample_aspect_ratio = in->sample_aspect_ratio.num ? in->sample_aspect_ratio : AVRational{1, 1};
    parameters->hw_frames_ctx = in->hw_frames_ctx;  // referenced by the source, not taken
    int ret = f->sourceParametersSet(source_, parameters);
    av_free(parameters);
    if (ret < 0 || (ret = f->initStr(source_, nullptr)) < 0)
        return ret;
    AVFilterContext* last = source_;
    int index = 0;
    for (const Step& step : stepsOf(in->width, in->height, width, height, filter.halving)) {
        char name[16], args[96];
        std::snprintf(name, sizeof name, "scale%d", index++);
        std::snprintf(args, sizeof args, "w=%d:h=%d%s", step.width, step.height, filter.options);
        AVFilterContext* scale = f->graphAllocFilter(graph_, f->getByName(filter.name), name);
        if (!scale)
            return AVERROR(ENOMEM);
        if ((ret = f->initStr(scale, args)) < 0 || (ret = f->link(last, 0, scale, 0)) < 0)
            return ret;
        last = scale;
    }
    sink_ = f->graphAllocFilter(graph_, f->getByName("buffersink"), "out");
    if (!sink_)
        return AVERROR(ENOMEM);
    if ((ret = f->initStr(sink_, nullptr)) < 0 || (ret = f->link(last, 0, sink_, 0)) < 0 ||
        (ret = f->graphConfig(graph_, nullptr)) < 0)
        return ret;
    frames_ = in->hw_frames_ctx ? in->hw_frames_ctx->data : nullptr;
    format_ = in->format;
    inWidth_ = in->width;
    inHeight_ = in->height;
    outWidth_ = width;
    outHeight_ = height;
    return 0;
}

int Scaler::scale(const AVFrame* in, int width, int height, AVFrame* out)
{
    const void* frames = in->hw_frames_ctx ? in->hw_frames_ctx->data : nullptr;
    const bool built = graph_ && frames == frames_ && in->format == format_ && in->width == inWidth_ &&
                       in->height == inHeight_ && width == outWidth_ && height == outHeight_;
    int ret = 0;
    if (!built && (ret = build(in, width, height)) < 0) {
        release();
        return ret;
    }
    const FilterLibrary* f = filterLibrary(nullptr);
    // The source takes its own reference: `in` is not changed.
    if ((ret = f->sourceAddFrame(source_, const_cast<AVFrame*>(in), AV_BUFFERSRC_FLAG_KEEP_REF)) < 0 ||
        (ret = f->sinkGetFrame(sink_, out)) < 0) {
        // A graph that failed once is built anew for the next picture.
        release();
        return ret;
    }
    return 0;
}

}  // namespace orvo::hw
