#include "decoders/exception_error_code.h"

#include <new>

namespace orvo {

quint32 currentExceptionErrorCode() noexcept
{
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return kErrorOutOfMemory;
    } catch (...) {
        return kErrorException;
    }
}

}  // namespace orvo
