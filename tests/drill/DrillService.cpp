// The print service on the port that it is given, with the job of its working directory; it runs
// until it is killed.
#include <unistd.h>

#include "Log.h"
#include "PrintService.h"
#include "UART.h"

int main(int nArgs, char** apArgs)
{
    Log::getInstance().setSinks(0);
    UART uart;
    if (2 != nArgs || 1 != uart.open(apArgs[1]) || 1 != uart.setParam(115200, 8, 1, 0)) {
        return 1;
    }
    PrintService& service = PrintService::getInstance();
    service.setUart(&uart);
    if (0 != service.startPrint()) {
        return 1;
    }
    for (;;) {
        pause();
    }
}
