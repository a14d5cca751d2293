// How a serial line of the guard's is set up, on either side.
#pragma once

/**
 * 115200 baud, 8N1, raw: a serial port, or the terminal whose first end the descriptor is.
 * @return false with errno
 */
bool setRawLine(int nFd);
