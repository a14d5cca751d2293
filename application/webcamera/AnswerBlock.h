// Formats a head or a short text into a block that a send queue can share.
#pragma once

#include <cstddef>

#include "SafePointer.h"

/**
 * A malloc'ed, zero-filled block with the formatted, zero-terminated text.
 *
 * @param uSize  bytes of the block; a text that does not fit gets a block that it fits
 * @return an empty handle, unlogged, without memory
 */
SafePointer_C<char> makeAnswerBlock(size_t uSize, const char* pFormat, ...)
    __attribute__((format(printf, 2, 3)));
