// The journal itself: which calls stand in it, with what, and whose they were.
#include "CallJournal.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "Fault.h"

namespace {

using Lines = std::vector<std::string>;

} // namespace

TEST(CallJournal, WaitsAreNotedWithTheirTimeOuts)
{
    const int nEpoll = epoll_create1(0);
    epoll_event aEvent[3];
    int anPipe[2];
    ASSERT_EQ(0, pipe(anPipe));
    ASSERT_EQ(1, write(anPipe[1], "x", 1));
    CallJournal journal("poll epoll_wait select nanosleep clock_nanosleep usleep");

    (void)poll(nullptr, 0, 7);
    (void)epoll_wait(nEpoll, aEvent, 3, 5);
    timeval tv{0, 2500};
    (void)select(0, nullptr, nullptr, nullptr, &tv);
    fd_set ready;
    FD_ZERO(&ready);
    FD_SET(anPipe[0], &ready);
    tv = {12, 0};
    (void)select(anPipe[0] + 1, &ready, nullptr, nullptr, &tv);
    FD_SET(anPipe[0], &ready);
    (void)select(anPipe[0] + 1, &ready, nullptr, nullptr, nullptr);
    timespec ts{0, 1000};
    (void)nanosleep(&ts, nullptr);
    (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &ts, nullptr);
    (void)clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr);
    (void)usleep(3);

    EXPECT_EQ((Lines{"poll 7", "epoll_wait 3 5", "select 0.002500", "select fd 12.000000",
                     "select fd -", "nanosleep 0.000001000", "clock_nanosleep 0.000001000",
                     "clock_nanosleep until 0.000001000", "usleep 3"}),
              CallJournal::lines());
    for (const int nFd : {nEpoll, anPipe[0], anPipe[1]}) {
        close(nFd);
    }
}

TEST(CallJournal, OnlyTheChosenCallsAreNotedAndOnlyForItsLife)
{
    {
        CallJournal journal("open poll");
        (void)usleep(1);
        (void)poll(nullptr, 0, 0);
        close(open("/dev/null", O_RDONLY));
        EXPECT_EQ((Lines{"poll 0", "open /dev/null"}), CallJournal::lines());
        EXPECT_EQ(1u, CallJournal::count("poll 0"));
        journal.clear();
        EXPECT_EQ(Lines{}, CallJournal::lines());
        (void)poll(nullptr, 0, 1);
        EXPECT_EQ(Lines{"poll 1"}, CallJournal::lines());
    }
    (void)poll(nullptr, 0, 0);

    EXPECT_EQ(Lines{}, CallJournal::lines());
}

TEST(CallJournal, ReactorsMasksAreNoted)
{
    const int nEpoll = epoll_create1(0);
    int anPipe[2];
    ASSERT_EQ(0, pipe(anPipe));
    CallJournal journal("epoll_ctl");

    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    (void)epoll_ctl(nEpoll, EPOLL_CTL_ADD, anPipe[0], &event);
    event.events = EPOLLIN;
    (void)epoll_ctl(nEpoll, EPOLL_CTL_MOD, anPipe[0], &event);
    (void)epoll_ctl(nEpoll, EPOLL_CTL_DEL, anPipe[0], &event);

    const std::string strFd = std::to_string(anPipe[0]);
    EXPECT_EQ((Lines{"epoll_ctl add " + strFd + " 0x80000001", "epoll_ctl mod " + strFd + " 0x1",
                     "epoll_ctl del " + strFd}),
              CallJournal::lines());
    for (const int nFd : {nEpoll, anPipe[0], anPipe[1]}) {
        close(nFd);
    }
}

TEST(CallJournal, SocketCallsStandInTheirOrder)
{
    CallJournal journal("socket setsockopt bind listen send shutdown close");

    const int nFd = socket(AF_UNIX, SOCK_STREAM, 0);
    const int nOn = 1;
    (void)setsockopt(nFd, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof(nOn));
    (void)bind(nFd, nullptr, 0);
    (void)listen(nFd, 9);
    (void)send(nFd, "abc", 3, MSG_NOSIGNAL);
    (void)shutdown(nFd, SHUT_WR);
    close(nFd);

    const std::string strFd = std::to_string(nFd);
    EXPECT_EQ((Lines{"socket",
                     "setsockopt " + strFd + " " + std::to_string(SOL_SOCKET) + " " +
                         std::to_string(SO_REUSEADDR),
                     "bind " + strFd, "listen " + strFd + " 9", "send " + strFd + " 3",
                     "shutdown " + strFd + " " + std::to_string(SHUT_WR), "close " + strFd}),
              CallJournal::lines());
}

TEST(CallJournal, FailingCallIsNotedAsWell)
{
    FaultScope fault("poll:1:EINTR");
    CallJournal journal("poll");

    EXPECT_EQ(-1, poll(nullptr, 0, 20));
    EXPECT_EQ(EINTR, errno);

    EXPECT_EQ(Lines{"poll 20"}, CallJournal::lines());
}

TEST(CallJournal, LinesOfOneThreadAreToldApart)
{
    CallJournal journal("poll");

    std::thread other([] {
        prctl(PR_SET_NAME, "journal_other", 0, 0, 0);
        (void)poll(nullptr, 0, 2);
    });
    other.join();
    (void)poll(nullptr, 0, 1);

    EXPECT_EQ((Lines{"poll 2", "poll 1"}), CallJournal::lines());
    EXPECT_EQ(Lines{"poll 2"}, CallJournal::lines("journal_other"));
}

TEST(CallJournal, ThreadsAreNotedAsJoinableOrDetached)
{
    CallJournal journal("pthread_create pthread_join");
    pthread_t thread{};
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr, [](void* p) { return p; }, nullptr));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    ASSERT_EQ(0, pthread_create(
                     &thread, &attr, [](void* p) { return p; }, nullptr));
    pthread_attr_destroy(&attr);

    EXPECT_EQ((Lines{"pthread_create joinable", "pthread_join", "pthread_create detached"}),
              CallJournal::lines());
}

TEST(CallJournal, FullJournalSaysSo)
{
    CallJournal journal("poll");

    for (int i = 0; i < 8200; ++i) {
        (void)poll(nullptr, 0, 0);
    }

    const Lines vecLine = CallJournal::lines();
    ASSERT_EQ(8193u, vecLine.size());
    EXPECT_EQ("poll 0", vecLine[8191]);
    EXPECT_EQ("journal full", vecLine[8192]);
}

TEST(CallJournal, PreloadedProgramWritesItsJournalToAFile)
{
    char acPath[] = "/tmp/kestrel-journal.XXXXXX";
    close(mkstemp(acPath));
    const std::string strCommand =
        std::string("LD_PRELOAD=" FAULT_PRELOAD " KESTREL_FAULT_JOURNAL_CALLS='open select'"
                    " KESTREL_FAULT_PROGRAM=python3 KESTREL_FAULT_JOURNAL=") +
        acPath + " python3 -c 'import select; select.select([], [], [], 0.25)'";

    ASSERT_EQ(0, runChild({"/bin/sh", "-c", strCommand}).nStatus);

    FILE* pFile = fopen(acPath, "r");
    ASSERT_NE(nullptr, pFile);
    std::string strLast;
    char acLine[256];
    while (nullptr != fgets(acLine, sizeof(acLine), pFile)) {
        strLast = (nullptr == strstr(acLine, "|select ")) ? strLast : acLine;
    }
    fclose(pFile);
    unlink(acPath);
    EXPECT_EQ("python3|select 0.250000\n", strLast);
}
