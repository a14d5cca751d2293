// The guard's terminal: the print service's port, and single lines of the operator's.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "UART.h"

/**
 * Opens the terminal when the guard is there and gives it to the print service; takes it back
 * when the guard hangs up, and closes it when nobody reads from it or writes to it any more. One
 * thread follows; one at a time may ask, and only while no job runs.
 */
class ArmTerminal
{
public:
    enum ANSWER_E
    {
        ANSWER_OK,
        ANSWER_REFUSED, // getCode() tells the code
        ANSWER_LATE,
        ANSWER_GONE // there is no terminal
    };

    explicit ArmTerminal(std::string strLink);
    ArmTerminal(const ArmTerminal&) = delete;
    ArmTerminal& operator=(const ArmTerminal&) = delete;

    /** Takes it from the print service, and waits for whoever still uses it, 22 s at most. */
    ~ArmTerminal();

    /**
     * Open it, or take it back when the guard is gone or has hung up. Never waits: what was taken
     * back is closed by the first call that finds nobody at it, and only then opened anew.
     */
    void follow(bool bGuard);

    /** Whether it may be used. Any thread. */
    bool isOpen() const
    {
        return m_bOpen;
    }

    /** A line that is answered once; 10 s at most. */
    ANSWER_E send(const std::string& strLine);

    /** A move that is answered twice: when it is taken and when it has ended; 22 s at most. */
    ANSWER_E move(const std::string& strLine);

    /** Of the last refusal. */
    int getCode() const
    {
        return m_nCode;
    }

private:
    void takeBack();
    bool isInUse() const;
    bool isHungUp() const;
    bool write(const std::string& strLine);
    ANSWER_E awaitLine(std::string& strLine, uint64_t u64EndMs);
    ANSWER_E awaitAnswer(uint64_t u64EndMs);

    const std::string m_strLink;
    UART m_uart;                       // open until nobody uses it
    std::atomic<bool> m_bOpen{false};  // what is taken back is used by nobody new
    std::atomic<int32_t> m_nAsking{0}; // requests that are under way
    std::string m_strInput;
    int m_nCode = 0;
};
