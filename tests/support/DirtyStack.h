// A stack on which no variable is zero by chance.
#pragma once

#include <cstring>

/** Leaves ones on the stack, where the functions called next have their variables. */
__attribute__((noinline)) inline void dirtyStack()
{
    char acUsed[65536];
    memset(acUsed, 0xff, sizeof(acUsed));
    __asm__ volatile("" : : "r"(acUsed) : "memory"); // or it would be left out
}
