// stream-load: the load generator of the stream benchmark, for the service and for its floor.
//
// usage: stream-load ADDRESS PORT CLIENTS SLOW-RATE RECORDS
//
// Connects CLIENTS clients of "/live" that read whatever comes, and with a SLOW-RATE above 0 one
// more that reads so many bytes per second. Prints "slow PORT" (the slow client's own) and, once
// each fast client has had a whole part, "ready". A line on standard input makes the slow client
// read at full speed; the end of standard input ends the program, which then writes the file
// RECORDS: a line for each part,
//   part CLIENT SIZE X-TIMESTAMP DONE BEGIN END
// (LoadClient.h says of what), and one for each of the slow client's reads, the bytes it has had by
// then:
//   taken DONE BYTES
// Ends with 1 when a stream breaks off or holds anything but the agreed bytes.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "LoadClient.h"

namespace {

const int TICKS = 20; // reads per second of the slow client

class StreamLoad
{
public:
    StreamLoad() : m_nEPoll(epoll_create1(EPOLL_CLOEXEC))
    {
        m_vecPart.reserve(100000); // no growth, and its copying, while measuring
    }

    bool start(const char* pAddress, uint16_t u16Port, uint32_t u32Clients, size_t nRate)
    {
        for (uint32_t i = 0; i < u32Clients + (nRate > 0 ? 1 : 0); ++i) {
            m_vecClient.push_back(std::make_unique<LoadClient>(i, m_vecPart));
            if (!m_vecClient.back()->start(pAddress, u16Port)) {
                return false;
            }
        }
        m_u32Fast = u32Clients;
        for (uint32_t i = 0; i < u32Clients; ++i) {
            watch(m_vecClient[i]->descriptor(), i);
        }
        if (nRate > 0) {
            m_uPortion = nRate / TICKS;
            m_nTimer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
            const timespec tick = {0, 1000000000 / TICKS};
            const itimerspec every = {tick, tick};
            timerfd_settime(m_nTimer, 0, &every, nullptr);
            watch(m_nTimer, TIMER);
            printf("slow %u\n", m_vecClient.back()->localPort());
        }
        watch(STDIN_FILENO, INPUT);
        return true;
    }

    /** Until standard input ends. @return false when a stream was not as agreed */
    bool run()
    {
        epoll_event aEvent[128];
        while (!m_bEnd) {
            const int nReady = epoll_wait(m_nEPoll, aEvent, 128, -1);
            for (int i = 0; i < nReady; ++i) {
                if (!onReady(aEvent[i].data.u32)) {
                    return false;
                }
            }
        }
        return true;
    }

    bool write(const char* pPath) const
    {
        FILE* pFile = fopen(pPath, "we");
        if (nullptr == pFile) {
            perror(pPath);
            return false;
        }
        for (const Part& part : m_vecPart) {
            fprintf(pFile, "part %u %u %lld %lld %llu %llu\n", part.u32Client, part.u32Size,
                    static_cast<long long>(part.s64Stamp), static_cast<long long>(part.s64Done),
                    static_cast<unsigned long long>(part.u64Begin),
                    static_cast<unsigned long long>(part.u64End));
        }
        for (const Taken& taken : m_vecTaken) {
            fprintf(pFile, "taken %lld %llu\n", static_cast<long long>(taken.s64Time),
                    static_cast<unsigned long long>(taken.u64Bytes));
        }
        return 0 == fclose(pFile);
    }

private:
    static const uint32_t TIMER = UINT32_MAX;
    static const uint32_t INPUT = UINT32_MAX - 1;

    struct Taken
    {
        int64_t s64Time; // microseconds, CLOCK_MONOTONIC
        uint64_t u64Bytes;
    };

    void watch(int nFd, uint32_t u32Number) const
    {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u32 = u32Number;
        epoll_ctl(m_nEPoll, EPOLL_CTL_ADD, nFd, &event);
    }

    bool onReady(uint32_t u32Number)
    {
        if (INPUT == u32Number) {
            onInput();
            return true;
        }
        if (TIMER == u32Number) {
            uint64_t u64Ticks = 0;
            const bool bTick = sizeof(u64Ticks) == ::read(m_nTimer, &u64Ticks, sizeof(u64Ticks));
            return !bTick || takeSlowly();
        }
        if (!m_vecClient[u32Number]->take(SIZE_MAX)) {
            return false;
        }
        if (!m_bReady) {
            lookWhetherReady();
        }
        return true;
    }

    void lookWhetherReady()
    {
        while (m_u32Had < m_u32Fast && m_vecClient[m_u32Had]->parts() > 0) {
            ++m_u32Had;
        }
        if (m_u32Had == m_u32Fast) {
            m_bReady = true;
            printf("ready\n");
            fflush(stdout);
        }
    }

    void onInput()
    {
        char acLine[16];
        if (::read(STDIN_FILENO, acLine, sizeof(acLine)) <= 0) {
            m_bEnd = true;
        } else if (m_nTimer >= 0) {
            epoll_ctl(m_nEPoll, EPOLL_CTL_DEL, m_nTimer, nullptr);
            watch(m_vecClient.back()->descriptor(), m_u32Fast);
        }
    }

    bool takeSlowly()
    {
        const bool bGood = m_vecClient.back()->take(m_uPortion);
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        m_vecTaken.push_back({static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000,
                              m_vecClient.back()->taken()});
        return bGood;
    }

    const int m_nEPoll;
    int m_nTimer = -1;
    size_t m_uPortion = 0;  // bytes that the slow client reads at a time
    uint32_t m_u32Fast = 0; // clients; the slow one stands behind them
    uint32_t m_u32Had = 0;  // so many of the first clients have had a part
    bool m_bReady = false;
    bool m_bEnd = false;
    std::vector<Part> m_vecPart;
    std::vector<Taken> m_vecTaken;
    std::vector<std::unique_ptr<LoadClient>> m_vecClient;
};

} // namespace

int main(int nCount, char** ppArgument)
{
    if (6 != nCount) {
        fprintf(stderr, "usage: stream-load ADDRESS PORT CLIENTS SLOW-RATE RECORDS\n");
        return 2;
    }
    StreamLoad load;
    const auto u16Port = static_cast<uint16_t>(atoi(ppArgument[2]));
    const auto u32Clients = static_cast<uint32_t>(atoi(ppArgument[3]));
    const auto nRate = static_cast<size_t>(atoi(ppArgument[4]));
    const bool bGood = load.start(ppArgument[1], u16Port, u32Clients, nRate) && load.run() &&
                       load.write(ppArgument[5]);
    return bGood ? 0 : 1;
}
