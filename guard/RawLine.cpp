// How a serial line of the guard's is set up, on either side.
#include "RawLine.h"

#include <termios.h>

bool setRawLine(int nFd)
{
    termios attr{};
    if (0 != tcgetattr(nFd, &attr)) {
        return false;
    }
    attr.c_iflag = 0;
    attr.c_oflag = 0;
    attr.c_lflag = 0;
    // HUPCL: when nobody holds the port any more, boards that reset by DTR do.
    attr.c_cflag = CS8 | CREAD | CLOCAL | HUPCL;
    attr.c_cc[VMIN] = 1;
    attr.c_cc[VTIME] = 0;
    cfsetispeed(&attr, B115200);
    cfsetospeed(&attr, B115200);
    return 0 == tcsetattr(nFd, TCSANOW, &attr);
}
