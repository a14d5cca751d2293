// The keys of the terminal, one by one.
#pragma once

#include <termios.h>

/**
 * Takes keys from standard input without waiting for a line's end and without showing them, when
 * that is a terminal with this program in front; else there are none. The terminal is as before
 * when the object goes. One thread; nothing blocks.
 */
class Keys
{
public:
    Keys();
    Keys(const Keys&) = delete;
    Keys& operator=(const Keys&) = delete;
    ~Keys();

    /** What to wait for; -1: no keys. */
    int getFd() const
    {
        return m_nFd;
    }

    static const int NONE = -1;
    static const int LOST = -2;

    /** The next key; NONE when none waits, LOST when the terminal is gone, and from then on. */
    int take();

private:
    int m_nFd = -1;
    termios m_before{};
};
