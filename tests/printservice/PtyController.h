// A controller that answers as the test says, at the other end of a pseudo terminal.
#pragma once

#include <atomic>
#include <ctime>
#include <deque>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>
#include <pty.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "UART.h"

/** Keeps every byte. */
class PtyController
{
public:
    PtyController()
    {
        char acPath[64] = {0};
        EXPECT_EQ(0, openpty(&m_nMaster, &m_nSlave, acPath, nullptr, nullptr));
        EXPECT_EQ(1, m_uart.open(acPath));
        m_thread = std::thread([this] { answer(); });
    }
    PtyController(const PtyController&) = delete;
    PtyController& operator=(const PtyController&) = delete;
    ~PtyController()
    {
        m_bQuit = true;
        m_thread.join();
        m_uart.close();
        close(m_nSlave);
        close(m_nMaster);
    }

    /** What the next writes that end a line are answered with; "" for silence; then always "ok". */
    void answerWith(const std::vector<std::string>& vecAnswer)
    {
        const std::lock_guard<std::mutex> guard(m_mtx);
        m_queAnswer.assign(vecAnswer.begin(), vecAnswer.end());
    }

    void say(const std::string& strText) const
    {
        EXPECT_EQ(static_cast<long>(strText.size()),
                  syscall(SYS_write, m_nMaster, strText.data(), strText.size()));
    }

    std::string bytes() const
    {
        const std::lock_guard<std::mutex> guard(m_mtx);
        return m_strBytes;
    }

    /** The lines so far that are not empty. */
    std::vector<std::string> lines() const
    {
        std::vector<std::string> vecLine;
        std::istringstream stream(bytes());
        for (std::string strLine; std::getline(stream, strLine);) {
            if (!strLine.empty()) {
                vecLine.push_back(strLine);
            }
        }
        return vecLine;
    }

    bool waitForBytes(const std::string& strBytes) const
    {
        return eventually([&] { return strBytes == bytes(); });
    }

    UART m_uart;

private:
    /** By bare system calls: the journal is the service's. */
    void answer()
    {
        while (!m_bQuit) {
            pollfd entry{m_nMaster, POLLIN, 0};
            const timespec wait{0, 5000000};
            if (syscall(SYS_ppoll, &entry, 1, &wait, nullptr, 0) <= 0) {
                continue;
            }
            char acPart[4096];
            const long nRead = syscall(SYS_read, m_nMaster, acPart, sizeof(acPart));
            if (nRead <= 0) {
                continue;
            }
            std::string strAnswer = "ok\n";
            {
                const std::lock_guard<std::mutex> guard(m_mtx);
                m_strBytes.append(acPart, static_cast<size_t>(nRead));
                if ('\n' == m_strBytes.back() && !m_queAnswer.empty()) {
                    strAnswer = m_queAnswer.front();
                    m_queAnswer.pop_front();
                }
            }
            if (!strAnswer.empty()) {
                say(strAnswer);
            }
        }
    }

    int m_nMaster = -1;
    int m_nSlave = -1;
    mutable std::mutex m_mtx; // guards what follows
    std::deque<std::string> m_queAnswer;
    std::string m_strBytes;
    std::atomic<bool> m_bQuit{false};
    std::thread m_thread;
};
