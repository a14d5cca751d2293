// The serial port on a pseudo terminal: line parameters, reads, sends and their texts.
#include "UART.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "LibraryCall.h"
#include "LogCapture.h"
#include "Time.h"

namespace {

/**
 * What a real serial chip has and a pseudo terminal lacks: a line-status register, parity and every
 * character size. It sits behind one descriptor.
 */
struct SerialChip
{
    int nFd = -1;
    termios attr{};
    std::vector<int> vecStatus; // answers to the line-status query
    size_t uQueries = 0;
    std::string strJournal; // "get ", "set ", "flush-in ", "flush-io "
};

SerialChip g_chip;

template <class F> F realFunction(const char* pName)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, pName));
}

} // namespace

// In place of the C library's: the chip's descriptor is answered here, all others go through.

extern "C" int ioctl(int nFd, IoctlRequest request, ...) LIBRARY_CALL
{
    va_list args;
    va_start(args, request);
    void* const pArg = va_arg(args, void*);
    va_end(args);
    if (static_cast<IoctlRequest>(TIOCSERGETLSR) == request && nFd == g_chip.nFd) {
        *static_cast<int*>(pArg) = g_chip.vecStatus.at(g_chip.uQueries++);
        return 0;
    }
    return static_cast<int>(syscall(SYS_ioctl, nFd, request, pArg));
}

extern "C" int tcgetattr(int nFd, termios* pAttr) LIBRARY_CALL
{
    if (nFd != g_chip.nFd || -1 == nFd) {
        return realFunction<int (*)(int, termios*)>("tcgetattr")(nFd, pAttr);
    }
    g_chip.strJournal += "get ";
    *pAttr = g_chip.attr;
    return 0;
}

extern "C" int tcsetattr(int nFd, int nAction, const termios* pAttr) LIBRARY_CALL
{
    if (nFd != g_chip.nFd || -1 == nFd) {
        return realFunction<int (*)(int, int, const termios*)>("tcsetattr")(nFd, nAction, pAttr);
    }
    g_chip.strJournal += (TCSANOW == nAction) ? "set " : "set-late ";
    g_chip.attr = *pAttr;
    return 0;
}

extern "C" int tcflush(int nFd, int nQueue) LIBRARY_CALL
{
    if (nFd != g_chip.nFd || -1 == nFd) {
        return realFunction<int (*)(int, int)>("tcflush")(nFd, nQueue);
    }
    g_chip.strJournal += (TCIFLUSH == nQueue)    ? "flush-in "
                         : (TCIOFLUSH == nQueue) ? "flush-io "
                                                 : "flush-out ";
    return 0;
}

namespace {

/** A pseudo terminal as the system makes it: line editing, echo and all. */
class Line
{
public:
    Line()
    {
        char acPath[64] = {0};
        EXPECT_EQ(0, openpty(&m_nMaster, &m_nSlave, acPath, nullptr, nullptr));
        m_strPath = acPath;
    }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    ~Line()
    {
        unplug();
        close(m_nSlave);
    }

    void unplug()
    {
        if (m_nMaster >= 0) {
            close(m_nMaster);
            m_nMaster = -1;
        }
    }

    termios attributes() const
    {
        termios attr{};
        EXPECT_EQ(0, tcgetattr(m_nSlave, &attr));
        return attr;
    }

    void setAttributes(const termios& attr) const
    {
        EXPECT_EQ(0, tcsetattr(m_nSlave, TCSANOW, &attr));
    }

    void feed(const std::string& strText) const
    {
        EXPECT_EQ(static_cast<ssize_t>(strText.size()),
                  write(m_nMaster, strText.data(), strText.size()));
    }

    std::string drain() const
    {
        char acBuffer[256] = {0};
        const ssize_t nRead = read(m_nMaster, acBuffer, sizeof(acBuffer));
        return std::string(acBuffer, (nRead > 0) ? static_cast<size_t>(nRead) : 0);
    }

    const std::string& getPath() const
    {
        return m_strPath;
    }

private:
    int m_nMaster = -1;
    int m_nSlave = -1;
    std::string m_strPath;
};

/** An open port on a pseudo terminal. */
class UARTPort : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(1, m_uart.open(m_line.getPath()));
    }
    void TearDown() override
    {
        m_uart.close();
    }

    Line m_line;
    UART m_uart;
};

/** The same with the chip behind it. */
class UARTChip : public UARTPort
{
protected:
    void SetUp() override
    {
        UARTPort::SetUp();
        g_chip = {};
        g_chip.nFd = m_uart.getFd();
    }
    void TearDown() override
    {
        g_chip = {};
        UARTPort::TearDown();
    }

    static tcflag_t controlFlags(tcflag_t mask)
    {
        return g_chip.attr.c_cflag & mask;
    }
    static tcflag_t inputFlags()
    {
        return g_chip.attr.c_iflag & (INPCK | PARMRK | IGNPAR);
    }
};

std::string contentOf(const char* pBuffer, size_t uSize)
{
    return std::string(pBuffer, strnlen(pBuffer, uSize));
}

} // namespace

TEST(UART, StartsClosedWithItsPlaceholders)
{
    const UART uart;

    EXPECT_EQ(-1, uart.getFd());
    EXPECT_EQ(9600, uart.getSpeed());
    EXPECT_EQ(7, uart.getDataBits());
    EXPECT_EQ(0, uart.getStopBits());
    EXPECT_EQ(0, uart.getParity());
    EXPECT_EQ(0, uart.getCharRate());
}

TEST(UART, TransmissionTimeBeforeParametersIsZero)
{
    const UART uart;

    EXPECT_EQ(0, uart.txTime(64));
    EXPECT_TRUE(Time() == uart.txTimeValue(64));
}

TEST(UART, MissingDeviceIsASilentFailure)
{
    UART uart;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, uart.open("/nowhere/ttyACM0"));

    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(-1, uart.getFd());
}

TEST(UART, DeliberateOpenClosesWhatARefusedRawModeLeftOpen)
{
    UART uart;
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, uart.open("/dev/null"));

    EXPECT_EQ(std::string("getattr error: ") + strerror(ENOTTY) + "\n",
              testing::internal::GetCapturedStderr());
    const int nFirst = uart.getFd();
    EXPECT_NE(-1, fcntl(nFirst, F_GETFD));
    const Line line;
    EXPECT_EQ(1, uart.open(line.getPath()));
    EXPECT_EQ(nFirst, uart.getFd()); // its number was free again
    uart.close();
}

TEST(UART, OpenWithoutPathTakesThePathSetBefore)
{
    const Line line;
    UART uart;
    uart.setPath(line.getPath());

    EXPECT_EQ(1, uart.open());

    struct stat ours;
    struct stat theirs;
    fstat(uart.getFd(), &ours);
    stat(line.getPath().c_str(), &theirs);
    EXPECT_EQ(theirs.st_rdev, ours.st_rdev);
    uart.close();
}

TEST(UART, DestructorLeavesTheDescriptorOpen)
{
    const Line line;
    int nFd = -1;
    {
        UART uart;
        ASSERT_EQ(1, uart.open(line.getPath()));
        nFd = uart.getFd();
    }

    EXPECT_NE(-1, fcntl(nFd, F_GETFD));
    close(nFd);
}

TEST_F(UARTPort, SecondCloseDoesNothing)
{
    const int nFd = m_uart.getFd();
    m_uart.close();
    const int nOther = dup(STDERR_FILENO); // takes the freed number
    ASSERT_EQ(nFd, nOther);

    m_uart.close();

    EXPECT_EQ(-1, m_uart.getFd());
    EXPECT_NE(-1, fcntl(nOther, F_GETFD));
    close(nOther);
}

TEST_F(UARTPort, DescriptorDoesNotBlockAndIsNotInherited)
{
    EXPECT_EQ(O_RDWR | O_NONBLOCK, fcntl(m_uart.getFd(), F_GETFL) & (O_ACCMODE | O_NONBLOCK));
    EXPECT_EQ(FD_CLOEXEC, fcntl(m_uart.getFd(), F_GETFD));
}

TEST_F(UARTPort, SetBlockReplacesAllStatusFlags)
{
    fcntl(m_uart.getFd(), F_SETFL, O_NONBLOCK | O_APPEND);

    EXPECT_EQ(0, m_uart.setBlock(true));
    EXPECT_EQ(0, fcntl(m_uart.getFd(), F_GETFL) & (O_NONBLOCK | O_APPEND));
    EXPECT_EQ(0, m_uart.setBlock(false));
    EXPECT_EQ(O_NONBLOCK, fcntl(m_uart.getFd(), F_GETFL) & (O_NONBLOCK | O_APPEND));
}

TEST_F(UARTPort, RawModeSetsItsFlagsAndLeavesTheOthers)
{
    termios before{};
    before.c_cflag = CS7 | CSTOPB | PARENB | CRTSCTS | B1200;
    before.c_iflag = IXON | IXOFF | ICRNL | INPCK;
    before.c_oflag = OPOST | OLCUC | ONLCR | ONOCR | OCRNL | ONLRET;
    before.c_lflag = ICANON | ECHO | ECHOE | ISIG | IEXTEN;
    before.c_cc[VTIME] = 5;
    before.c_cc[VMIN] = 7;
    m_line.setAttributes(before);
    before = m_line.attributes(); // as far as the terminal took it

    EXPECT_EQ(1, m_uart.setRawMode());

    const termios after = m_line.attributes();
    EXPECT_EQ(CLOCAL | CREAD | HUPCL, after.c_cflag & (CLOCAL | CREAD | HUPCL | CRTSCTS));
    EXPECT_EQ(before.c_cflag & (CSIZE | CSTOPB | PARENB | CBAUD),
              after.c_cflag & (CSIZE | CSTOPB | PARENB | CBAUD));
    EXPECT_EQ(0U, after.c_oflag & (OPOST | OLCUC | ONLCR | ONOCR | OCRNL | ONLRET));
    EXPECT_EQ(0U, after.c_lflag & (ICANON | ECHO | ECHOE | ISIG));
    EXPECT_EQ(static_cast<tcflag_t>(IEXTEN), after.c_lflag & IEXTEN);
    EXPECT_EQ(0U, after.c_iflag);
    EXPECT_EQ(0, after.c_cc[VTIME]);
    EXPECT_EQ(1, after.c_cc[VMIN]);
}

TEST_F(UARTPort, RawModeThrowsQueuedInputAway)
{
    m_line.feed("old");
    ASSERT_EQ(0, m_uart.setBlock(false));

    EXPECT_EQ(1, m_uart.setRawMode());

    char acBuffer[8] = {0};
    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(0, 0)));
    EXPECT_EQ("", contentOf(acBuffer, 8));
}

TEST_F(UARTPort, BytesPassUnchanged)
{
    std::string strAll;
    for (int i = 0; i < 256; ++i) {
        strAll += static_cast<char>(i);
    }

    m_line.feed(strAll);
    char acBuffer[256] = {0};
    EXPECT_EQ(0, m_uart.read(acBuffer, 256, Time(5, 0)));
    EXPECT_EQ(strAll, std::string(acBuffer, 256));

    EXPECT_EQ(256, m_uart.send(strAll.data(), 256, 0));
    EXPECT_EQ(strAll, m_line.drain());
}

TEST_F(UARTPort, ControllerParametersGiveItsCharacterRate)
{
    EXPECT_EQ(1, m_uart.setParam(115200, 8, 1, 0));

    EXPECT_EQ(11520, m_uart.getCharRate());
    EXPECT_EQ(5, m_uart.txTime(64));
    EXPECT_TRUE(Time(0, 5000) == m_uart.txTimeValue(64));
    const termios attr = m_line.attributes();
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetospeed(&attr));
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetispeed(&attr));
    EXPECT_EQ(static_cast<tcflag_t>(CS8), attr.c_cflag & (CSIZE | CSTOPB | PARENB));
}

TEST_F(UARTChip, ParityCountsAsABit)
{
    EXPECT_EQ(1, m_uart.setParam(9600, 7, 2, 2));

    EXPECT_EQ(9600 / 11, m_uart.getCharRate());
    EXPECT_EQ(((3 * 8 + 7 - 1) * 1000) / (7 * (9600 / 11)), m_uart.txTime(3));
}

TEST_F(UARTChip, LargeBlocksDoNotOverflowTheTime)
{
    ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));

    EXPECT_EQ(86805, m_uart.txTime(1000000));
    EXPECT_TRUE(Time(86, 805000) == m_uart.txTimeValue(1000000));
    EXPECT_TRUE(Time() == m_uart.txTimeValue(-100));
}

TEST_F(UARTChip, ParametersStopAtTheFirstFailure)
{
    ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));

    EXPECT_EQ(0, m_uart.setParam(9600, 9, 2, 1));

    EXPECT_EQ(9600, m_uart.getSpeed());
    EXPECT_EQ(8, m_uart.getDataBits());
    EXPECT_EQ(1, m_uart.getStopBits());
    EXPECT_EQ(0, m_uart.getParity());
    EXPECT_EQ(11520, m_uart.getCharRate());
}

TEST_F(UARTPort, EverySpeedOfTheTable)
{
    const std::vector<std::pair<int32_t, speed_t>> vecSpeed = {
        {115200, B115200}, {57600, B57600}, {38400, B38400}, {19200, B19200}, {9600, B9600},
        {4800, B4800},     {2400, B2400},   {1200, B1200},   {300, B300}};
    for (const auto& speed : vecSpeed) {
        EXPECT_EQ(1, m_uart.setSpeed(speed.first));

        const termios attr = m_line.attributes();
        EXPECT_EQ(speed.second, cfgetospeed(&attr)) << speed.first;
        EXPECT_EQ(speed.second, cfgetispeed(&attr)) << speed.first;
        EXPECT_EQ(speed.first, m_uart.getSpeed());
    }
}

TEST_F(UARTPort, DeliberateUnknownSpeedSucceedsAndChangesNothing)
{
    ASSERT_EQ(1, m_uart.setSpeed(19200));

    EXPECT_EQ(1, m_uart.setSpeed(250000));

    EXPECT_EQ(250000, m_uart.getSpeed());
    const termios attr = m_line.attributes();
    EXPECT_EQ(static_cast<speed_t>(B19200), cfgetospeed(&attr));
}

TEST_F(UARTChip, DataBitsFiveToEight)
{
    const std::vector<std::pair<int32_t, tcflag_t>> vecSize = {
        {5, CS5}, {6, CS6}, {7, CS7}, {8, CS8}};
    g_chip.attr.c_cflag = CS8 | CLOCAL | PARENB;
    for (const auto& size : vecSize) {
        g_chip.strJournal.clear();

        EXPECT_EQ(1, m_uart.setDataBits(size.first));

        EXPECT_EQ(size.second | CLOCAL | PARENB, g_chip.attr.c_cflag);
        EXPECT_EQ(size.first, m_uart.getDataBits());
        EXPECT_EQ("get flush-in set get ", g_chip.strJournal);
    }
}

TEST_F(UARTPort, SizeThatTheDeviceRefusesIsTold)
{
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, m_uart.setDataBits(7)); // pseudo terminals know eight only

    EXPECT_EQ(std::string("SetupSerial 3: ") + strerror(EINVAL) + "\n",
              testing::internal::GetCapturedStderr());
}

TEST_F(UARTChip, RawModeAndSpeedFlushAroundTheirChange)
{
    EXPECT_EQ(1, m_uart.setRawMode());
    EXPECT_EQ("get flush-io flush-io set get ", g_chip.strJournal);
    g_chip.strJournal.clear();

    EXPECT_EQ(1, m_uart.setSpeed(9600));
    EXPECT_EQ("get flush-io flush-io set get flush-io ", g_chip.strJournal);
    g_chip.strJournal.clear();

    EXPECT_EQ(1, m_uart.setSpeed(250000));
    EXPECT_EQ("get ", g_chip.strJournal);
}

TEST_F(UARTPort, OtherDataBitsFailSilently)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, m_uart.setDataBits(9));
    EXPECT_EQ(0, m_uart.setDataBits(4));

    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(7, m_uart.getDataBits());
}

TEST_F(UARTChip, StopBitsOneAndTwo)
{
    EXPECT_EQ(1, m_uart.setStopBits(2));
    EXPECT_EQ(static_cast<tcflag_t>(CSTOPB), controlFlags(CSTOPB));
    EXPECT_EQ(1, m_uart.setStopBits(1));
    EXPECT_EQ(0U, controlFlags(CSTOPB));
    EXPECT_EQ(1, m_uart.getStopBits());
}

TEST_F(UARTPort, OtherStopBitsAreTold)
{
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, m_uart.setStopBits(3));

    EXPECT_EQ("Unsupported stop bits(3)\n", testing::internal::GetCapturedStderr());
    EXPECT_EQ(0, m_uart.getStopBits());
}

TEST_F(UARTChip, ParityCodesSetTheirFlags)
{
    g_chip.attr.c_iflag = PARMRK | IGNPAR;
    g_chip.attr.c_cflag = CS8;

    EXPECT_EQ(1, m_uart.setParity(1));
    EXPECT_EQ(static_cast<tcflag_t>(CS8 | PARENB | PARODD), g_chip.attr.c_cflag);
    EXPECT_EQ(static_cast<tcflag_t>(INPCK), g_chip.attr.c_iflag);
    EXPECT_EQ("get flush-in set get ", g_chip.strJournal);
    EXPECT_EQ(1, m_uart.setParity(2));
    EXPECT_EQ(static_cast<tcflag_t>(CS8 | PARENB), g_chip.attr.c_cflag);
    EXPECT_EQ(static_cast<tcflag_t>(INPCK), g_chip.attr.c_iflag);
    EXPECT_EQ(2, m_uart.getParity());
    EXPECT_EQ(1, m_uart.setParity(0));
    EXPECT_EQ(0U, controlFlags(PARENB));
    EXPECT_EQ(0U, inputFlags());
    EXPECT_EQ(0, m_uart.getParity());
}

TEST_F(UARTChip, DeliberateParityCodesThreeAndFourLeaveTheInputFlags)
{
    for (const int32_t s32Code : {3, 4}) {
        ASSERT_EQ(1, m_uart.setParity(1));

        EXPECT_EQ(1, m_uart.setParity(s32Code));

        EXPECT_EQ(0U, controlFlags(PARENB));
        EXPECT_EQ(static_cast<tcflag_t>(INPCK), inputFlags());
        EXPECT_EQ(s32Code, m_uart.getParity());
    }
}

TEST_F(UARTPort, OtherParityCodesAreTold)
{
    for (const int32_t s32Code : {5, 100, -1}) {
        testing::internal::CaptureStderr();

        EXPECT_EQ(0, m_uart.setParity(s32Code));

        EXPECT_EQ("Unsupported parity\n", testing::internal::GetCapturedStderr());
        EXPECT_EQ(0, m_uart.getParity());
    }
}

TEST(UART, ClosedPortTellsEachFailure)
{
    UART uart;
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, uart.setRawMode());
    EXPECT_EQ(0, uart.setSpeed(9600));
    EXPECT_EQ(1, uart.setSpeed(250000));
    EXPECT_EQ(0, uart.setDataBits(8));
    EXPECT_EQ(0, uart.setStopBits(1));
    EXPECT_EQ(0, uart.setParity(0));

    const std::string strEnd = std::string(": ") + strerror(EBADF) + "\n";
    EXPECT_EQ("getattr error" + strEnd + "tcsetattr fd1" + strEnd + "SetupSerial 1" + strEnd +
                  "SetupSerial 1" + strEnd + "SetupSerial 1" + strEnd,
              testing::internal::GetCapturedStderr());
    char acBuffer[4] = {0};
    EXPECT_EQ(-1, uart.read(acBuffer, 4, Time(0, 0)));
}

TEST_F(UARTPort, DeliberateReadReturnsZeroWhenBytesArrived)
{
    m_line.feed("0123456789");

    char acBuffer[64] = {0};
    EXPECT_EQ(0, m_uart.read(acBuffer, 64, Time(5, 0)));

    EXPECT_EQ("0123456789", contentOf(acBuffer, 64));
}

TEST_F(UARTPort, ReadTakesAtMostWhatIsAskedFor)
{
    m_line.feed("0123456789");

    char acBuffer[8] = {0};
    EXPECT_EQ(0, m_uart.read(acBuffer, 4, Time(5, 0)));
    EXPECT_EQ("0123", contentOf(acBuffer, 8));
    EXPECT_EQ(0, m_uart.read(acBuffer, 0, Time(5, 0)));
    EXPECT_EQ("0123", contentOf(acBuffer, 8));
}

TEST_F(UARTPort, ReadTakesOneReadOnly)
{
    m_line.feed("one");
    char acBuffer[8] = {0};
    const uint64_t u64Start = monotonicMs();

    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(60, 0)));

    EXPECT_GT(30000U, monotonicMs() - u64Start) << "the rest is not waited for";
    EXPECT_EQ("one", contentOf(acBuffer, 8));
}

TEST_F(UARTPort, ReadWithZeroTimeOutLooksOnce)
{
    char acBuffer[8] = {0};
    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(0, 0)));
    EXPECT_EQ("", contentOf(acBuffer, 8));
    m_line.feed("x");

    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(0, 0)));

    EXPECT_EQ("x", contentOf(acBuffer, 8));
}

TEST_F(UARTPort, ReadWaitsItsTime)
{
    const uint64_t u64Start = monotonicMs();

    char acBuffer[8] = {0};
    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(0, 200000)));

    EXPECT_LE(199U, monotonicMs() - u64Start);
}

TEST_F(UARTPort, ReadOfAPortThatWentAwayBringsNothing)
{
    m_line.unplug();

    char acBuffer[8] = {0};
    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(5, 0)));
    EXPECT_EQ("", contentOf(acBuffer, 8));
}

TEST_F(UARTPort, SendToAPortThatWentAwayIsTold)
{
    m_line.unplug();
    testing::internal::CaptureStdout();

    EXPECT_EQ(0, m_uart.send("M5\n", 3, 0));

    EXPECT_EQ("nWriteLength:-1\n", testing::internal::GetCapturedStdout());
}

TEST_F(UARTPort, FullPortCutsTheSendShort)
{
    const std::string strBlock(1000000, 'x');
    testing::internal::CaptureStdout();

    const int32_t s32Sent = m_uart.send(strBlock.data(), 1000000, 0);

    EXPECT_EQ("nWriteLength:-1\n", testing::internal::GetCapturedStdout());
    EXPECT_LT(0, s32Sent);
    EXPECT_GT(1000000, s32Sent);
    int32_t s32Arrived = 0;
    while (s32Arrived < s32Sent) {
        const auto nPart = static_cast<int32_t>(m_line.drain().size());
        ASSERT_LT(0, nPart);
        s32Arrived += nPart;
    }
    EXPECT_EQ(s32Sent, s32Arrived);
}

TEST_F(UARTPort, SendWithoutDrainAsksNothing)
{
    ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));
    const LogCapture log;
    testing::internal::CaptureStdout();

    EXPECT_EQ(3, m_uart.send("M5\n", 3, 0));
    EXPECT_EQ(3, m_uart.send("M5\n", 3, 2));

    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(UARTPort, DrainOnAPortWithoutLineStatusFails)
{
    ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));
    const LogCapture log;

    EXPECT_EQ(-1, m_uart.send("M5\n", 3, 1));

    EXPECT_EQ("M5\n", m_line.drain());
    const std::vector<std::string> vecExpected = {
        std::string("[debug] [UART.cpp ] [send] error: ") + strerror(ENOTTY) + "\n"};
    EXPECT_EQ(vecExpected, log.lines());
}

TEST_F(UARTChip, DrainEndsWhenTheTransmitterIsEmpty)
{
    ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));
    g_chip.vecStatus = {TIOCSER_TEMT};

    EXPECT_EQ(3, m_uart.send("M5\n", 3, 1));

    EXPECT_EQ(1U, g_chip.uQueries);
}

TEST_F(UARTChip, DrainGivesUpAfterTwoRounds)
{
    ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));
    g_chip.vecStatus = {0, 0};

    EXPECT_EQ(3, m_uart.send("M5\n", 3, 1));

    EXPECT_EQ(2U, g_chip.uQueries);
}

TEST_F(UARTChip, DrainWaitsOneTransmissionTimePerRound)
{
    ASSERT_EQ(1, m_uart.setParam(300, 8, 1, 0)); // 30 characters per second
    g_chip.vecStatus = {0, TIOCSER_TEMT};
    const uint64_t u64Start = monotonicMs();

    EXPECT_EQ(3, m_uart.send("M5\n", 3, 1));

    EXPECT_LE(2U * 129 - 1, monotonicMs() - u64Start); // (24 + 7) * 1000 / 240 = 129 ms each
    EXPECT_EQ(2U, g_chip.uQueries);
}

TEST_F(UARTChip, FlushesNameTheirQueues)
{
    EXPECT_EQ(0, m_uart.flushIn());
    EXPECT_EQ(0, m_uart.flushOut());
    EXPECT_EQ(0, m_uart.flushIO());

    EXPECT_EQ("flush-in flush-out flush-io ", g_chip.strJournal);
}

TEST_F(UARTPort, FlushesThrowTheirQueueAway)
{
    char acBuffer[8] = {0};
    m_line.feed("in");
    EXPECT_EQ(0, m_uart.flushIn());
    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(0, 0)));
    EXPECT_EQ("", contentOf(acBuffer, 8));

    m_line.feed("in");
    EXPECT_EQ(0, m_uart.flushIO());
    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(0, 0)));
    EXPECT_EQ("", contentOf(acBuffer, 8));

    m_line.feed("in");
    EXPECT_EQ(0, m_uart.flushOut());
    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(5, 0)));
    EXPECT_EQ("in", contentOf(acBuffer, 8));

    m_uart.close();
    EXPECT_EQ(-1, m_uart.flushIn());
    EXPECT_EQ(-1, m_uart.flushOut());
    EXPECT_EQ(-1, m_uart.flushIO());
}

TEST_F(UARTPort, AttributesArePrintedInHex)
{
    const termios attr = m_line.attributes();
    char acExpected[128] = {0};
    snprintf(acExpected, sizeof(acExpected),
             "getattr,c_iflag=0x%x,c_oflag=0x%x,c_cflag=0x%x,c_lflag=0x%x\n", attr.c_iflag,
             attr.c_oflag, attr.c_cflag, attr.c_lflag);
    testing::internal::CaptureStdout();

    m_uart.printAttr();

    EXPECT_EQ(acExpected, testing::internal::GetCapturedStdout());
}
