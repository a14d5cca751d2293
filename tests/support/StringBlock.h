// The size of a string's memory, for tests in which just that allocation fails.
#pragma once

#include <cstddef>
#include <string>

/** What the C++ library in use asks malloc for, for a copy of a text of this length. */
inline size_t stringBlock(size_t uLength)
{
    const std::string strText(uLength, 'x');
    return std::string(strText).capacity() + 1; // the terminator
}
