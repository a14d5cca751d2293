// An open port on a pseudo terminal, and one with a serial chip behind it.
#pragma once

#include <cstring>
#include <string>

#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "SerialChip.h"
#include "UART.h"

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
class OpenPort : public testing::Test
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
class OpenPortOnChip : public OpenPort
{
protected:
    void SetUp() override
    {
        OpenPort::SetUp();
        g_chip = {};
        g_chip.nFd = m_uart.getFd();
    }
    void TearDown() override
    {
        g_chip = {};
        OpenPort::TearDown();
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

/** The text that was read into a buffer. */
inline std::string contentOf(const char* pBuffer, size_t uSize)
{
    return std::string(pBuffer, strnlen(pBuffer, uSize));
}
