// One line and its reply over a pseudo terminal, beside a bare write, wait and read.
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "PtyPeer.h"
#include "Time.h"
#include "UART.h"

namespace {

const std::string LINE = "G1 X12.500 Y-3.250 F1500 S200\n";

void bareRoundTrip(benchmark::State& state)
{
    stayOnProcessor(0); // and, from here on, what else this program measures
    PtyPeer peer(0);
    const int nFd = open(peer.path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    char acReply[64];
    pollfd entry{nFd, POLLIN, 0};
    for (auto _ : state) {
        if (write(nFd, LINE.data(), LINE.size()) < 0 || 1 != poll(&entry, 1, 2000) ||
            read(nFd, acReply, sizeof(acReply)) <= 0) {
            state.SkipWithError("the line is dead");
            break;
        }
    }
    close(nFd);
}

void roundTrip(benchmark::State& state)
{
    stayOnProcessor(0); // and, from here on, what else this program measures
    PtyPeer peer(0);
    UART uart;
    if (1 != uart.open(peer.path())) {
        state.SkipWithError("the port does not open");
    }
    for (auto _ : state) {
        char acReply[65] = {0};
        (void)uart.send(LINE.data(), static_cast<int>(LINE.size()), 0); // the reply tells
        (void)uart.read(acReply, 64, Time(2, 0));
        if ('o' != acReply[0]) {
            state.SkipWithError("no reply");
            break;
        }
    }
    uart.close();
}

} // namespace

BENCHMARK(bareRoundTrip)->UseRealTime();
BENCHMARK(roundTrip)->UseRealTime();
