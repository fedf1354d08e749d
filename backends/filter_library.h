#pragma once
// FFmpeg's filter library, loaded on first use. Only GPU scaling needs it, and it pulls in
// some thirty libraries (fonts, speech, subtitles, ...) that a client decoding in software
// should not load: it is opened with dlopen the first time a stream scales on the engine.
#include <cstdint>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
}

#include <string>

namespace orvo::hw {

struct FilterLibrary {
    decltype(&::avfilter_get_by_name) getByName;
    decltype(&::avfilter_graph_alloc) graphAlloc;
    decltype(&::avfilter_graph_alloc_filter) graphAllocFilter;
    decltype(&::avfilter_graph_config) graphConfig;
    decltype(&::avfilter_graph_free) graphFree;
    decltype(&::avfilter_init_str) initStr;
    decltype(&::avfilter_link) link;
    decltype(&::av_buffersrc_parameters_alloc) sourceParametersAlloc;
    decltype(&::av_buffersrc_parameters_set) sourceParametersSet;
    decltype(&::av_buffersrc_add_frame_flags) sourceAddFrame;
    decltype(&::av_buffersink_get_frame) sinkGetFrame;
};

// The library's functions; null where it does not load (the linked FFmpeg's major version),
// with `error` saying why. Loaded once per process; safe from any thread.
const FilterLibrary* filterLibrary(std::string* error);

}  // namespace orvo::hw
