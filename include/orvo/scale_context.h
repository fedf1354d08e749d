#pragma once
#include "orvo/export.h"
// ScaleContext holds one swscale context so that repeated scalings of the same
// geometry reuse it. Use one context from one thread at a time; distinct contexts
// may scale in parallel. Copy assignment copies the pointer as it is: two holders
// then share one context and only one of them may be destroyed while holding it.
struct SwsContext;

namespace orvo {

class ORVO_EXPORT ScaleContext {
public:
    ScaleContext() = default;
    ~ScaleContext();
    ScaleContext& operator=(const ScaleContext& other) { context = other.context; return *this; }
    ScaleContext(const ScaleContext&) = delete;

    SwsContext* context = nullptr;
};

}  // namespace orvo
