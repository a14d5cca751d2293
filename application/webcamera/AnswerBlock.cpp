// Formats a head or a short text into a block that a send queue can share.
#include "AnswerBlock.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

__attribute__((format(printf, 2, 0))) char* formatBlock(size_t uSize, const char* pFormat,
                                                        va_list args, size_t& uNeeded)
{
    char* pBlock = static_cast<char*>(calloc(1, uSize));
    if (nullptr != pBlock) {
        const int nLength = vsnprintf(pBlock, uSize, pFormat, args);
        uNeeded = (nLength < 0) ? 0 : static_cast<size_t>(nLength) + 1;
    }
    return pBlock;
}

} // namespace

SafePointer_C<char> makeAnswerBlock(size_t uSize, const char* pFormat, ...)
{
    size_t uNeeded = 0;
    va_list args;
    va_start(args, pFormat);
    char* pBlock = formatBlock(uSize, pFormat, args, uNeeded);
    va_end(args);
    if (uNeeded > uSize) {
        free(pBlock);
        uSize = uNeeded;
        va_start(args, pFormat);
        pBlock = formatBlock(uSize, pFormat, args, uNeeded);
        va_end(args);
    }
    return (nullptr == pBlock) ? SafePointer_C<char>() : SafePointer_C<char>(pBlock);
}
