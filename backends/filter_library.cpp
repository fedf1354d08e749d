#include "backends/filter_library.h"

#include <dlfcn.h>
#include <mutex>

namespace orvo::hw {
namespace {

// The soname of the filter library that matches the linked libavutil.
#define ORVO_STRINGIFY2(x) #x
#define ORVO_STRINGIFY(x) ORVO_STRINGIFY2(x)
constexpr const char* kSoname = "libavfilter.so." ORVO_STRINGIFY(LIBAVFILTER_VERSION_MAJOR);

template <typename F>
bool resolve(void* handle, const char* name, F* to, std::string* missing)
{
    *to = reinterpret_cast<F>(dlsym(handle, name));
    if (!*to && missing->empty())
        *missing = name;
    return *to != nullptr;
}

}  // namespace

const FilterLibrary* filterLibrary(std::string* error)
{
    static FilterLibrary library{};
    static std::string failure;
    static std::once_flag once;
    std::call_once(once, [] {
        // Never closed: its functions may be in use until the process ends.
        void* handle = dlopen(kSoname, RTLD_NOW | RTLD_LOCAL);
        if (!handle) {
            const char* why = dlerror();
            failure = std::string(kSoname) + " does not load" + (why ? std::string(": ") + why : std::string());
            return;
        }
        std::string missing;
        resolve(handle, "avfilter_get_by_name", &library.getByName, &missing);
        resolve(handle, "avfilter_graph_alloc", &library.graphAlloc, &missing);
        resolve(handle, "avfilter_graph_alloc_filter", &library.graphAllocFilter, &missing);
        resolve(handle, "avfilter_graph_config", &library.graphConfig, &missing);
        resolve(handle, "avfilter_graph_free", &library.graphFree, &missing);
        resolve(handle, "avfilter_init_str", &library.initStr, &missing);
        resolve(handle, "avfilter_link", &library.link, &missing);
        resolve(handle, "av_buffersrc_parameters_alloc", &library.sourceParametersAlloc, &missing);
        resolve(handle, "av_buffersrc_parameters_set", &library.sourceParametersSet, &missing);
        resolve(handle, "av_buffersrc_add_frame_flags", &library.sourceAddFrame, &missing);
        resolve(handle, "av_buffersink_get_frame", &library.sinkGetFrame, &missing);
        if (!missing.empty())
            failure = std::string(kSoname) + " lacks " + missing;
    });
    if (!failure.empty()) {
        if (error)
            *error = failure;
        return nullptr;
    }
    return &library;
}

}  // namespace orvo::hw
