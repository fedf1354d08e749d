#include "orvo/decoder_null.h"

namespace orvo {

DecoderNULL* DecoderNULL::instance()
{
    // Deliberately leaked: dispatchers on any thread may still hold it at exit.
    static DecoderNULL* const decoder = new DecoderNULL;
    return decoder;
}

}  // namespace orvo
