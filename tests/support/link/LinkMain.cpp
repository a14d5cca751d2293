// kestrel-link: two network namespaces joined by a link with a delay, a rate and losses.
//
// The near end, 10.8.0.1, is in the namespace in which the program is started, the far end,
// 10.8.0.2, in a new one, which the program itself is in from then on: others enter it by
// /proc/PID/ns/net. Prints "ready" once both are up. On standard input it takes a word a line, each
// answered by a line once it is done:
//   cut    nothing arrives any more, in either direction
//   mend   things arrive again
//   count  answered by "arrived N overflowed N lost N", packets of both directions
// The end of standard input ends the program, and with it the link. Needs CAP_SYS_ADMIN and
// CAP_NET_ADMIN, which tests/support/private-host gives, and /dev/net/tun.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <getopt.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include "Tun.h"
#include "Wire.h"

namespace {

const char* const USAGE = "usage: kestrel-link [option...]\n"
                          "  --delay-ms N       one-way delay (0)\n"
                          "  --mbit N           rate of each direction, 10^6 bits per second "
                          "(no bound)\n"
                          "  --queue N          packets that wait for the rate at most (100)\n"
                          "  --loss-percent N   of each direction's packets (0)\n"
                          "  --seed N           of the losses (1)\n";

const option OPTIONS[] = {{"delay-ms", required_argument, nullptr, 'd'},
                          {"mbit", required_argument, nullptr, 'm'},
                          {"queue", required_argument, nullptr, 'q'},
                          {"loss-percent", required_argument, nullptr, 'l'},
                          {"seed", required_argument, nullptr, 's'},
                          {nullptr, 0, nullptr, 0}};

const size_t MOST_BYTES = 2048; // more than the devices let through
const char IPV4 = 4;            // upper half of a packet's first byte

uint64_t monotonicNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

bool readOptions(int nCount, char** ppArgument, WireOptions& options)
{
    int nOption = 0;
    while (-1 != (nOption = getopt_long(nCount, ppArgument, "", OPTIONS, nullptr))) {
        char* pEnd = nullptr;
        const double dValue = ('?' == nOption) ? -1 : strtod(optarg, &pEnd);
        if (dValue < 0 || '\0' != *pEnd) {
            return false;
        }
        switch (nOption) {
        case 'd':
            options.u64DelayNs = static_cast<uint64_t>(dValue * 1e6);
            break;
        case 'm':
            options.u64BitsPerS = static_cast<uint64_t>(dValue * 1e6);
            break;
        case 'q':
            options.uQueue = static_cast<size_t>(dValue);
            break;
        case 'l':
            options.u32LossPerMillion = static_cast<uint32_t>(dValue * 1e4);
            break;
        default:
            options.u32Seed = static_cast<uint32_t>(dValue);
            break;
        }
    }
    return optind == nCount;
}

/** The same as for the other direction, but other losses. */
WireOptions reversed(WireOptions options)
{
    options.u32Seed = ~options.u32Seed;
    return options;
}

class Link
{
public:
    explicit Link(const WireOptions& options) : m_toFar(options), m_toNear(reversed(options)) {}

    bool open()
    {
        if (!m_near.open("10.8.0.1")) {
            return false;
        }
        if (0 != unshare(CLONE_NEWNET)) {
            fprintf(stderr, "kestrel-link: a network namespace: %s\n", strerror(errno));
            return false;
        }
        m_nTimer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
        return m_far.open("10.8.0.2");
    }

    /** Until standard input ends. */
    void run()
    {
        pollfd aPoll[] = {{STDIN_FILENO, POLLIN, 0},
                          {m_near.getFd(), POLLIN, 0},
                          {m_far.getFd(), POLLIN, 0},
                          {m_nTimer, POLLIN, 0}};
        for (;;) {
            arm();
            if (poll(aPoll, 4, -1) < 0) {
                continue; // a signal
            }
            forward(m_near, m_toFar, m_far);
            forward(m_far, m_toNear, m_near);
            if (0 != aPoll[0].revents && !obey()) {
                return;
            }
        }
    }

private:
    void arm() const
    {
        const uint64_t u64NextNs = std::min(m_toFar.getNextNs(), m_toNear.getNextNs());
        itimerspec spec{}; // unarmed
        if (UINT64_MAX != u64NextNs) {
            spec.it_value.tv_sec = static_cast<time_t>(u64NextNs / 1000000000);
            spec.it_value.tv_nsec = static_cast<long>(u64NextNs % 1000000000);
        }
        (void)timerfd_settime(m_nTimer, TFD_TIMER_ABSTIME, &spec, nullptr);
    }

    static void forward(const Tun& from, Wire& wire, const Tun& to)
    {
        char acData[MOST_BYTES];
        for (size_t uSize = 0; 0 != (uSize = from.read(acData, sizeof(acData)));) {
            if (IPV4 == acData[0] >> 4) { // not what the kernel says by itself over IPv6
                wire.enter(acData, uSize, monotonicNs());
            }
        }
        Wire::Packet packet;
        while (wire.leave(packet, monotonicNs())) {
            to.write(packet.data(), packet.size());
        }
    }

    /** @return false at the end of standard input */
    bool obey()
    {
        char acText[256];
        const ssize_t nRead = ::read(STDIN_FILENO, acText, sizeof(acText));
        if (nRead <= 0) {
            return false;
        }
        m_strInput.append(acText, static_cast<size_t>(nRead));
        for (size_t uEnd = 0; std::string::npos != (uEnd = m_strInput.find('\n'));) {
            obey(m_strInput.substr(0, uEnd));
            m_strInput.erase(0, uEnd + 1);
        }
        return true;
    }

    void obey(const std::string& strWord)
    {
        if ("cut" == strWord || "mend" == strWord) {
            m_toFar.setCut("cut" == strWord);
            m_toNear.setCut("cut" == strWord);
            puts("done");
        } else if ("count" == strWord) {
            printf("arrived %u overflowed %u lost %u\n",
                   m_toFar.getArrived() + m_toNear.getArrived(),
                   m_toFar.getOverflowed() + m_toNear.getOverflowed(),
                   m_toFar.getLost() + m_toNear.getLost());
        } else {
            puts("unknown");
        }
        fflush(stdout);
    }

    Tun m_near;
    Tun m_far;
    Wire m_toFar;
    Wire m_toNear;
    int m_nTimer = -1;
    std::string m_strInput; // without its whole lines
};

} // namespace

int main(int nCount, char** ppArgument)
{
    WireOptions options;
    if (!readOptions(nCount, ppArgument, options)) {
        fputs(USAGE, stderr);
        return 2;
    }
    // A timer of the kernel's own slack would come 50 us late (prctl(2), PR_SET_TIMERSLACK).
    (void)prctl(PR_SET_TIMERSLACK, 1);
    // A packet that waits for a processor would count as one that the network kept. Where that is
    // not allowed the link is as good as the machine is idle.
    sched_param priority{};
    priority.sched_priority = 1;
    (void)sched_setscheduler(0, SCHED_FIFO, &priority);
    Link link(options);
    if (!link.open()) {
        return 1;
    }
    puts("ready");
    fflush(stdout);
    link.run();
    return 0;
}
