// Words of 32 bits that lock and wait, between threads or processes.
#pragma once

#include <stdint.h>

/*
 * Lock and unlock a word that starts as 0. Works between processes as it is, which a mutex of the
 * C library does not.
 */
void lockWord(uint32_t* pWord);
void unlockWord(uint32_t* pWord);

/*
 * Wait while the word has this value; may return early.
 * @return 0, or ETIMEDOUT after so many nanoseconds (less than a second)
 */
int waitWord(uint32_t* pWord, uint32_t u32Value, long nNanoseconds);
void wakeWord(uint32_t* pWord);
