// Handlers that note what a reactor calls.
#pragma once

#include <atomic>
#include <cerrno>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "Descriptors.h"
#include "EPoll.h"
#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "TcpClient.h"

using Lines = std::vector<std::string>;
using Names = std::vector<std::string>;

const uint32_t ALL = EPOLLIN | EPOLLPRI | EPOLLOUT | EPOLLET;

/** Handlers that note their calls and return the results set for them. */
class Recorder
{
public:
    /** Sets the handlers named, or all of them. */
    explicit Recorder(EPoll& epoll, const std::set<std::string>& names = {"accept", "in", "out",
                                                                          "pri", "err", "hup"})
    {
        const auto wanted = [&](const char* pName) { return 0 != names.count(pName); };
        if (wanted("accept")) {
            EXPECT_EQ(RET_SUCCESS, epoll.setAcceptHandler(this, &Recorder::onAccept));
        }
        if (wanted("in")) {
            EXPECT_EQ(RET_SUCCESS, epoll.setInHandler(this, &Recorder::onIn));
        }
        if (wanted("out")) {
            EXPECT_EQ(RET_SUCCESS, epoll.setOutHandler(this, &Recorder::onOut));
        }
        if (wanted("pri")) {
            EXPECT_EQ(RET_SUCCESS, epoll.setPriHandler(this, &Recorder::onPri));
        }
        if (wanted("err")) {
            EXPECT_EQ(RET_SUCCESS, epoll.setErrHandler(this, &Recorder::onErr));
        }
        if (wanted("hup")) {
            EXPECT_EQ(RET_SUCCESS, epoll.setHupHandler(this, &Recorder::onHup));
        }
    }

    RET_E onAccept(Event* pEvent)
    {
        return note("accept", 1, pEvent);
    }
    RET_E onIn(Event* pEvent)
    {
        return note("in", 1, pEvent);
    }
    RET_E onOut(Event* pEvent)
    {
        return note("out", 4, pEvent);
    }
    RET_E onPri(Event* pEvent)
    {
        return note("pri", 2, pEvent);
    }
    RET_E onErr(Event* pEvent)
    {
        return note("err", 8, pEvent);
    }
    RET_E onHup(Event* pEvent)
    {
        return note("hup", 16, pEvent);
    }

    Names takeNames()
    {
        Names result;
        result.swap(m_vecName);
        return result;
    }

    std::string m_strFinishes; // the handler that returns non-zero
    int m_nFd = -1;            // of the last event
    TcpClient** m_ppClient = nullptr;
    std::atomic<int> m_nCalls{0};
    std::atomic<int> m_nTid{0};

private:
    RET_E note(const char* pName, uint32_t u32Mask, Event* pEvent)
    {
        const auto& event = dynamic_cast<EPollEvent&>(*pEvent);
        EXPECT_EQ(u32Mask, event.m_u32Mask);
        m_vecName.emplace_back(pName);
        m_nFd = *event.m_pFd;
        m_ppClient = event.m_ppClient;
        m_nTid = static_cast<int>(syscall(SYS_gettid));
        ++m_nCalls;
        return (m_strFinishes == pName) ? RET_FAILED : RET_SUCCESS;
    }

    Names m_vecName;
};

/** The epoll descriptors that this process has. */
inline std::map<int, std::string> epollFds()
{
    return openDescriptors("anon_inode:[eventpoll]");
}

/** Make the near end ready for everything: data, urgent data, reset by its peer. */
inline void breakWithUrgentData(NetPair& pair)
{
    ASSERT_EQ(2, send(pair.m_far.getFd(), "ab", 2, MSG_OOB));
    ASSERT_TRUE(eventually([&] { return 7 == pair.m_near.checkState(); }));
    ASSERT_EQ(0, pair.m_far.setOptLinger(true, 0)); // closing then resets
    ASSERT_EQ(0, pair.m_far.close());
    pollfd entry{pair.m_near.getFd(), POLLIN, 0};
    ASSERT_TRUE(
        eventually([&] { return 1 == poll(&entry, 1, 1000) && 0 != (entry.revents & POLLHUP); }));
}
