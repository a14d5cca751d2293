// Waits on and wakes 32-bit words that two processes share.
#pragma once

#include <cstdint>

/** futex(2) on a word in a shared mapping. */
namespace Futex {

/** Block while the word has this value; may return early. */
void wait(uint32_t* pWord, uint32_t u32Value);
void wakeAll(uint32_t* pWord);

} // namespace Futex
