// Fuzzes the reply path of the print link: any bytes where the controller's replies are read.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Log.h"
#include "PrintService.h"
#include "UART.h"

// The linker puts these in the places of poll and select in the service's code: nothing waits, what
// is not there now never comes.
extern "C" int __real_poll(pollfd* pEntries, nfds_t uCount, int nTimeoutMs);
extern "C" int __wrap_poll(pollfd* pEntries, nfds_t uCount, int)
{
    return __real_poll(pEntries, uCount, 0);
}
extern "C" int __wrap_select(int, fd_set*, fd_set*, fd_set*, timeval*)
{
    return 0;
}

namespace {

/** The port's other end is the port itself: a FIFO gives back what the service sends, too. */
UART g_uart;

const char* const PORT = "/tmp/print-link";

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    if (0 != mkfifo(PORT, 0600) || nullptr == freopen("/dev/null", "w", stdout)) {
        perror("run this in tests/support/private-host");
        exit(1);
    }
    Log::getInstance().setSinks(0);
    (void)g_uart.open(PORT); // a FIFO refuses the raw mode, and stays open
    PrintService::getInstance().setUart(&g_uart);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize)
{
    const size_t uKept = (uSize < 4096) ? uSize : 4096; // a FIFO's atomic write, pipe(7)
    if (0 != uKept && static_cast<ssize_t>(uKept) != write(g_uart.getFd(), pData, uKept)) {
        abort();
    }
    PrintService& service = PrintService::getInstance();
    for (int i = 0; i < 3; ++i) {
        service.pollStatus();
    }
    service.onErrorCode((uSize > 0) ? pData[0] : 0);
    char acReply[64];
    do {
        service.readUart(acReply, sizeof(acReply), 1, 0);
    } while ('\0' != acReply[0]);
    char acRest[4096];
    fcntl(g_uart.getFd(), F_SETFL, O_NONBLOCK);
    while (read(g_uart.getFd(), acRest, sizeof(acRest)) > 0) {
    }
    return 0;
}
