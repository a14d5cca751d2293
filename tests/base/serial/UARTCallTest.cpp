// UART: which calls it makes, in which order, with which time-outs, and what it says of failed
// ones.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "LibraryCall.h"
#include "Time.h"
#include "UART.h"

namespace {

using Lines = std::vector<std::string>;

/** What the C library was asked for, and which of the calls shall fail. */
struct Calls
{
    std::string strNoted; // "get ", "set ", "set-late ", "flush-in ", "flush-other ", "fsync "
    int nGetError = 0;
    int nGetsBefore = 0; // so many succeed first
    int nSetError = 0;
    int nNarrowFd = -1; // takes a byte, then two, then three ...
    size_t uWrites = 0; // to it
    int nIdleFd = -1;   // takes nothing, and no write to it fails
};

Calls g_calls;

template <class F> F realFunction(const char* pName)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, pName));
}

} // namespace

// In place of the C library's.

extern "C" int tcgetattr(int nFd, termios* pAttr) LIBRARY_CALL
{
    g_calls.strNoted += "get ";
    if (0 != g_calls.nGetError && --g_calls.nGetsBefore < 0) {
        errno = g_calls.nGetError;
        return -1;
    }
    return realFunction<int (*)(int, termios*)>("tcgetattr")(nFd, pAttr);
}

extern "C" int tcsetattr(int nFd, int nAction, const termios* pAttr) LIBRARY_CALL
{
    g_calls.strNoted += (TCSANOW == nAction) ? "set " : "set-late ";
    if (0 != g_calls.nSetError) {
        errno = g_calls.nSetError;
        return -1;
    }
    return realFunction<int (*)(int, int, const termios*)>("tcsetattr")(nFd, nAction, pAttr);
}

extern "C" int tcflush(int nFd, int nQueue) LIBRARY_CALL
{
    g_calls.strNoted += (TCIFLUSH == nQueue) ? "flush-in " : "flush-other ";
    return realFunction<int (*)(int, int)>("tcflush")(nFd, nQueue);
}

extern "C" int fsync(int nFd)
{
    g_calls.strNoted += "fsync ";
    return realFunction<int (*)(int)>("fsync")(nFd);
}

extern "C" ssize_t __real_write(int nFd, const void* pData, size_t uSize);

extern "C" ssize_t __wrap_write(int nFd, const void* pData, size_t uSize)
{
    if (nFd == g_calls.nIdleFd) {
        errno = EIO; // of something else; a write that succeeds leaves it alone
        return 0;
    }
    if (nFd == g_calls.nNarrowFd) {
        g_calls.strNoted += std::to_string(uSize) + " ";
        uSize = std::min(uSize, ++g_calls.uWrites);
    }
    return __real_write(nFd, pData, uSize);
}

namespace {

/** An open port on a pseudo terminal; nothing is noted yet and no call fails. */
class UARTCall : public testing::Test
{
protected:
    void SetUp() override
    {
        char acPath[64] = {0};
        ASSERT_EQ(0, openpty(&m_nMaster, &m_nSlave, acPath, nullptr, nullptr));
        m_strPath = acPath;
        ASSERT_EQ(1, m_uart.open(m_strPath));
        g_calls = {};
    }
    void TearDown() override
    {
        g_calls = {};
        m_uart.close();
        close(m_nMaster);
        close(m_nSlave);
    }

    /** What an operation says on standard error when this call fails, with EIO. */
    template <class O> std::string told(int Calls::*pError, int nExpected, O operation)
    {
        g_calls = {};
        g_calls.*pError = EIO;
        testing::internal::CaptureStderr();
        EXPECT_EQ(nExpected, operation());
        g_calls.*pError = 0;
        return testing::internal::GetCapturedStderr();
    }

    static std::string line(const std::string& strWhat)
    {
        return strWhat + ": " + strerror(EIO) + "\n";
    }

    int m_nMaster = -1;
    int m_nSlave = -1;
    std::string m_strPath;
    UART m_uart;
};

} // namespace

TEST_F(UARTCall, PortDoesNotBecomeTheControllingTerminal)
{
    const pid_t nPid = fork();
    if (0 == nPid) {
        setsid(); // a terminal opened from here on would be the session's
        UART uart;
        const bool bOpen = 1 == uart.open(m_strPath);
        const bool bTerminal = open("/dev/tty", O_RDWR | O_CLOEXEC) >= 0;
        _exit((bOpen ? 0 : 1) + (bTerminal ? 2 : 0));
    }

    int nStatus = -1;
    ASSERT_EQ(nPid, waitpid(nPid, &nStatus, 0));
    ASSERT_TRUE(WIFEXITED(nStatus));
    EXPECT_EQ(0, WEXITSTATUS(nStatus)) << "1: not opened, 2: has a controlling terminal";
}

TEST_F(UARTCall, SendSynchronisesOnceAfterItsLastByte)
{
    EXPECT_EQ(3, m_uart.send("M5\n", 3, 0));
    EXPECT_EQ("fsync ", g_calls.strNoted);

    EXPECT_EQ(0, m_uart.send("", 0, 0));
    EXPECT_EQ("fsync fsync ", g_calls.strNoted);
}

TEST_F(UARTCall, SendGoesOnBehindEachPartThatThePortTakes)
{
    g_calls.nNarrowFd = m_uart.getFd();

    EXPECT_EQ(10, m_uart.send("0123456789", 10, 0));

    EXPECT_EQ(4U, g_calls.uWrites);
    EXPECT_EQ("10 9 7 4 ", g_calls.strNoted.substr(0, 9)) << "nothing from behind the data";
    std::string strArrived;
    while (strArrived.size() < 10) { // in parts here, too
        char acPart[16];
        const ssize_t nRead = read(m_nMaster, acPart, sizeof(acPart));
        ASSERT_LT(0, nRead);
        strArrived.append(acPart, static_cast<size_t>(nRead));
    }
    EXPECT_EQ("0123456789", strArrived);
}

TEST_F(UARTCall, PortThatTakesNothingCountsAsFull)
{
    g_calls.nIdleFd = m_uart.getFd();
    testing::internal::CaptureStdout();

    EXPECT_EQ(0, m_uart.send("M5\n", 3, 0));

    const int nError = errno;
    EXPECT_EQ("nWriteLength:0\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(EAGAIN, nError);
}

TEST_F(UARTCall, ShortSendTellsTheWritesErrorAndNotTheSynchronisations)
{
    close(m_nMaster);
    m_nMaster = -1;
    testing::internal::CaptureStdout();

    EXPECT_EQ(0, m_uart.send("M5\n", 3, 0));

    const int nError = errno;
    EXPECT_EQ("nWriteLength:-1\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(EIO, nError);
}

TEST_F(UARTCall, ShortSendTellsTheWritesErrorAndNotThatOfItsText)
{
    close(m_nMaster);
    m_nMaster = -1;
    const pid_t nPid = fork();
    if (0 == nPid) { // its standard output takes nothing, and says so at once
        const int nFull = open("/dev/full", O_WRONLY | O_CLOEXEC);
        const bool bReady = dup2(nFull, STDOUT_FILENO) >= 0 &&
                            0 == setvbuf(stdout, nullptr, _IONBF, 0) && putchar('x') < 0 &&
                            ENOSPC == errno;
        _exit((bReady && 0 == m_uart.send("M5\n", 3, 0)) ? errno : 0);
    }

    int nStatus = -1;
    ASSERT_EQ(nPid, waitpid(nPid, &nStatus, 0));
    ASSERT_TRUE(WIFEXITED(nStatus));
    EXPECT_EQ(EIO, WEXITSTATUS(nStatus));
}

TEST_F(UARTCall, CloseOfAClosedPortCallsNothing)
{
    m_uart.close();
    errno = 0;

    m_uart.close();

    EXPECT_EQ(0, errno) << "closed -1";
}

TEST_F(UARTCall, AttributesThatCannotBeReadBackCountAsTaken)
{
    g_calls.nGetsBefore = 1;
    g_calls.nGetError = EIO;

    EXPECT_EQ(1, m_uart.setStopBits(1));

    EXPECT_EQ("get flush-in set get ", g_calls.strNoted);
}

TEST_F(UARTCall, FailedSpeedEndsTheParameters)
{
    EXPECT_EQ(line("tcsetattr fd1"),
              told(&Calls::nSetError, 0, [this] { return m_uart.setParam(9600, 8, 1, 0); }));
}

TEST_F(UARTCall, ParityHasBadCharactersNeitherMarkedNorIgnored)
{
    termios attr{};
    ASSERT_EQ(0, tcgetattr(m_nSlave, &attr));
    attr.c_iflag |= PARMRK | IGNPAR;
    ASSERT_EQ(0, tcsetattr(m_nSlave, TCSANOW, &attr));

    for (const int32_t s32Code : {1, 2}) {
        (void)m_uart.setParity(s32Code); // a pseudo terminal refuses the parity itself

        ASSERT_EQ(0, tcgetattr(m_nSlave, &attr));
        EXPECT_EQ(static_cast<tcflag_t>(INPCK), attr.c_iflag & (INPCK | PARMRK | IGNPAR));
        attr.c_iflag |= PARMRK | IGNPAR;
        ASSERT_EQ(0, tcsetattr(m_nSlave, TCSANOW, &attr));
    }
}

TEST_F(UARTCall, RefusedRawModeIsTold)
{
    EXPECT_EQ(line("setattr error"),
              told(&Calls::nSetError, 0, [this] { return m_uart.setRawMode(); }));
    EXPECT_EQ(line("getattr error"),
              told(&Calls::nGetError, 0, [this] { return m_uart.setRawMode(); }));
}

TEST_F(UARTCall, RefusedSpeedIsTold)
{
    ASSERT_EQ(1, m_uart.setSpeed(9600));

    EXPECT_EQ(line("tcsetattr fd1"),
              told(&Calls::nSetError, 0, [this] { return m_uart.setSpeed(19200); }));

    EXPECT_EQ(9600, m_uart.getSpeed());
}

TEST_F(UARTCall, RefusedCharacterSizeIsTold)
{
    ASSERT_EQ(1, m_uart.setDataBits(8));

    EXPECT_EQ(line("SetupSerial 3"),
              told(&Calls::nSetError, 0, [this] { return m_uart.setDataBits(7); }));
    EXPECT_EQ("get flush-in set ", g_calls.strNoted);
    EXPECT_EQ(line("SetupSerial 1"),
              told(&Calls::nGetError, 0, [this] { return m_uart.setDataBits(7); }));

    EXPECT_EQ(8, m_uart.getDataBits());
}

TEST_F(UARTCall, RefusedStopBitsAreTold)
{
    ASSERT_EQ(1, m_uart.setStopBits(1));

    EXPECT_EQ(line("SetupSerial 3"),
              told(&Calls::nSetError, 0, [this] { return m_uart.setStopBits(2); }));
    EXPECT_EQ("get flush-in set ", g_calls.strNoted);
    EXPECT_EQ(line("SetupSerial 1"),
              told(&Calls::nGetError, 0, [this] { return m_uart.setStopBits(2); }));

    EXPECT_EQ(1, m_uart.getStopBits());
}

TEST_F(UARTCall, RefusedParityIsTold)
{
    ASSERT_EQ(1, m_uart.setParity(4));

    EXPECT_EQ(line("SetupSerial 3"),
              told(&Calls::nSetError, 0, [this] { return m_uart.setParity(0); }));
    EXPECT_EQ("get flush-in set ", g_calls.strNoted);
    EXPECT_EQ(line("SetupSerial 1"),
              told(&Calls::nGetError, 0, [this] { return m_uart.setParity(0); }));

    EXPECT_EQ(4, m_uart.getParity());
}

// Whatever is asked for: a port that is gone is told as that.
TEST_F(UARTCall, AttributesAreReadBeforeAParameterIsRefused)
{
    EXPECT_EQ(line("SetupSerial 1"),
              told(&Calls::nGetError, 0, [this] { return m_uart.setParity(5); }));
    EXPECT_EQ(line("SetupSerial 1"),
              told(&Calls::nGetError, 0, [this] { return m_uart.setStopBits(3); }));
    EXPECT_EQ(line("SetupSerial 1"),
              told(&Calls::nGetError, 0, [this] { return m_uart.setDataBits(9); }));
}

TEST_F(UARTCall, ReadWaitsAsLongAsItWasAskedTo)
{
    char acBuffer[8] = {0};
    ASSERT_EQ(8, write(m_nMaster, "12345678", 8)); // no wait takes its time

    const CallJournal journal("poll read");
    EXPECT_EQ(0, m_uart.read(acBuffer, 1, Time(10, 0)));
    EXPECT_EQ(0, m_uart.read(acBuffer, 2, Time(0, 500000)));
    EXPECT_EQ(0, m_uart.read(acBuffer, 1, Time(0, 1))); // the next whole millisecond
    EXPECT_EQ(0, m_uart.read(acBuffer, 1, Time(0, 0)));

    const std::string strFd = std::to_string(m_uart.getFd());
    EXPECT_EQ((Lines{"poll 10000", "read " + strFd + " 1", "poll 500", "read " + strFd + " 2",
                     "poll 1", "read " + strFd + " 1", "poll 0", "read " + strFd + " 1"}),
              CallJournal::lines());
}

TEST_F(UARTCall, ReadWithZeroTimeOutLooksOnceAndReadsNothingThatIsNotThere)
{
    char acBuffer[8] = {0};

    const CallJournal journal("poll read select");
    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(0, 0)));

    EXPECT_EQ((Lines{"poll 0"}), CallJournal::lines());
}

TEST_F(UARTCall, ReadOfNothingDoesNotEvenLook)
{
    char acBuffer[8] = {0};

    const CallJournal journal("poll read select");
    EXPECT_EQ(0, m_uart.read(acBuffer, 0, Time(60, 0)));
    EXPECT_EQ(0, m_uart.read(acBuffer, -1, Time(60, 0)));

    EXPECT_EQ(Lines{}, CallJournal::lines());
}
