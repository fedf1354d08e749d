#include "orvo/scale_context.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace orvo {

ScaleContext::~ScaleContext()
{
    if (context)
        sws_freeContext(context);
    context = nullptr;
}

}  // namespace orvo
