// As procd's preloaded library: standard output goes out line by line.
#include <stdio.h>

__attribute__((constructor)) static void setLineBuffer(void)
{
    setvbuf(stdout, NULL, _IOLBF, 0);
}
