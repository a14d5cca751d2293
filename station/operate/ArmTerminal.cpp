// The guard's terminal: the print service's port, and single lines of the operator's.
#include "ArmTerminal.h"

#include <array>
#include <cerrno>
#include <utility>

#include <poll.h>
#include <unistd.h>

#include "PrintService.h"
#include "ReplyCodec.h"
#include "Time.h"

static const char* const NOT_TAKEN_YET = "wait"; // the guard's: send it again

static const Time STEP(0, 10000);
static const uint64_t LINE_MS = 10000;
static const uint64_t MOVE_MS = 22000; // the guard tells the end within 19 s

namespace {

/** Counts for a scope. */
class Counted
{
public:
    explicit Counted(std::atomic<int32_t>& nCount) : m_nCount(nCount)
    {
        ++m_nCount;
    }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    ~Counted()
    {
        --m_nCount;
    }

private:
    std::atomic<int32_t>& m_nCount;
};

} // namespace

ArmTerminal::ArmTerminal(std::string strLink) : m_strLink(std::move(strLink)) {}

ArmTerminal::~ArmTerminal()
{
    takeBack();
    while (isInUse()) {
        sleepFor(STEP);
    }
    m_uart.close();
}

void ArmTerminal::takeBack()
{
    if (m_bOpen.exchange(false)) {
        PrintService::getInstance().setUart(nullptr);
    }
}

bool ArmTerminal::isInUse() const
{
    return m_nAsking > 0 || PrintService::getInstance().isPortInUse();
}

bool ArmTerminal::isHungUp() const
{
    pollfd each = {m_uart.getFd(), 0, 0};
    return 1 == poll(&each, 1, 0) && 0 != (each.revents & (POLLHUP | POLLERR | POLLNVAL));
}

void ArmTerminal::follow(bool bGuard)
{
    if (isOpen() && (!bGuard || isHungUp())) {
        takeBack();
    }
    if (isOpen() || isInUse()) {
        return;
    }
    m_uart.close(); // none as a rule
    if (!bGuard || m_strLink.empty()) {
        return;
    }
    if (1 == m_uart.open(m_strLink) && 1 == m_uart.setParam(115200, 8, 1, 0)) {
        m_bOpen = true;
        PrintService::getInstance().setUart(&m_uart);
    } else {
        m_uart.close();
    }
}

bool ArmTerminal::write(const std::string& strLine)
{
    const std::string strText = ReplyCodec::encodeCommand(strLine) + "\n";
    return static_cast<int>(strText.size()) ==
           m_uart.send(strText.data(), static_cast<int>(strText.size()), 0);
}

/** @return ANSWER_OK with a line, ANSWER_LATE or ANSWER_GONE */
ArmTerminal::ANSWER_E ArmTerminal::awaitLine(std::string& strLine, uint64_t u64EndMs)
{
    for (;;) {
        if (const size_t uEnd = m_strInput.find('\n'); std::string::npos != uEnd) {
            strLine = m_strInput.substr(0, uEnd + 1);
            m_strInput.erase(0, uEnd + 1);
            return ANSWER_OK;
        }
        const uint64_t u64NowMs = monotonicMs();
        pollfd each = {m_uart.getFd(), POLLIN, 0};
        const int nReady =
            (u64NowMs < u64EndMs) ? poll(&each, 1, static_cast<int>(u64EndMs - u64NowMs)) : 0;
        if (0 == nReady) {
            return ANSWER_LATE;
        }
        std::array<char, 256> acData{};
        const ssize_t nRead = ::read(m_uart.getFd(), acData.data(), acData.size());
        if (0 == nRead || (nRead < 0 && EAGAIN != errno && EINTR != errno)) {
            return ANSWER_GONE;
        }
        m_strInput.append(acData.data(), (nRead > 0) ? static_cast<size_t>(nRead) : 0);
    }
}

ArmTerminal::ANSWER_E ArmTerminal::awaitAnswer(uint64_t u64EndMs)
{
    std::string strLine;
    const ANSWER_E eLine = awaitLine(strLine, u64EndMs);
    if (ANSWER_OK != eLine) {
        return eLine;
    }
    m_nCode = ReplyCodec::getErrorCode(strLine);
    if (m_nCode > 0) {
        return ANSWER_REFUSED;
    }
    return (0 == strLine.compare(0, 4, NOT_TAKEN_YET)) ? ANSWER_LATE : ANSWER_OK;
}

ArmTerminal::ANSWER_E ArmTerminal::send(const std::string& strLine)
{
    const Counted asking(m_nAsking); // first: whoever still finds it open has been counted
    if (!isOpen()) {
        return ANSWER_GONE;
    }
    (void)m_uart.flushIn(); // what a former user has left
    m_strInput.clear();
    const uint64_t u64EndMs = monotonicMs() + LINE_MS;
    ANSWER_E eAnswer = ANSWER_LATE;
    while (ANSWER_LATE == eAnswer && monotonicMs() < u64EndMs) { // not taken yet: again
        if (!write(strLine)) {
            return ANSWER_GONE;
        }
        eAnswer = awaitAnswer(u64EndMs);
    }
    return eAnswer;
}

ArmTerminal::ANSWER_E ArmTerminal::move(const std::string& strLine)
{
    const Counted asking(m_nAsking); // first: whoever still finds it open has been counted
    if (!isOpen()) {
        return ANSWER_GONE;
    }
    (void)m_uart.flushIn();
    m_strInput.clear();
    if (!write(strLine)) {
        return ANSWER_GONE;
    }
    const uint64_t u64EndMs = monotonicMs() + MOVE_MS;
    const ANSWER_E eTaken = awaitAnswer(u64EndMs);
    const ANSWER_E eEnded = awaitAnswer(u64EndMs); // a refusal is told twice, too
    return (ANSWER_OK == eTaken) ? eEnded : eTaken;
}
