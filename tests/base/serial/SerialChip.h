// What a real serial chip has and a pseudo terminal lacks, in place of the C library's calls.
#pragma once

#include <string>
#include <vector>

#include <termios.h>

/**
 * A line-status register, parity and every character size, behind one descriptor. A program that
 * links SerialChip.cpp has ioctl and the tc... calls answered by the chip for that descriptor; all
 * others go through.
 */
struct SerialChip
{
    int nFd = -1;
    termios attr{};
    tcflag_t untaken = 0;       // control flags that stay as they are whatever is set
    std::vector<int> vecStatus; // answers to the line-status query
    size_t uQueries = 0;
    std::string strJournal; // "get ", "set ", "flush-in ", "flush-io "
};

extern SerialChip g_chip;
