#include "orvo/decoder_null.h"

#include "decoders/format_table.h"

namespace orvo {

unsigned char DecoderNULL::getFormat() const { return formats::forKind(formats::Kind::Null).code; }

DecoderNULL* DecoderNULL::instance()
{
    // Deliberately leaked: dispatchers on any thread may still hold it at exit.
    static DecoderNULL* const decoder = new DecoderNULL;
    return decoder;
}

}  // namespace orvo
