// What the guard writes down.
#include "Journal.h"

#include <algorithm>
#include <array>
#include <regex>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

/** A pipe whose reader is the test. */
class JournalFile : public testing::Test
{
protected:
    JournalFile()
    {
        EXPECT_EQ(0, pipe2(m_anPipe.data(), O_CLOEXEC | O_NONBLOCK));
    }
    ~JournalFile() override
    {
        close(m_anPipe[0]);
        close(m_anPipe[1]);
    }
    std::string read() const
    {
        std::string strText;
        std::array<char, 4096> acData{};
        for (ssize_t n = 0; (n = ::read(m_anPipe[0], acData.data(), acData.size())) > 0;) {
            strText.append(acData.data(), static_cast<size_t>(n));
        }
        return strText;
    }

    std::array<int, 2> m_anPipe{-1, -1};
};

const std::string STAMP = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z "
                          "[0-9]+\\.[0-9]{6} ";

} // namespace

TEST_F(JournalFile, LineHasBothTimes)
{
    Journal journal(m_anPipe[1]);

    journal.write("trip: alarm 1");

    const std::string strLine = read();
    EXPECT_TRUE(std::regex_match(strLine, std::regex(STAMP + "trip: alarm 1\n"))) << strLine;
}

TEST_F(JournalFile, LongLineIsCut)
{
    Journal journal(m_anPipe[1]);

    journal.write(std::string(1000, 'x'));

    const std::string strLine = read();
    EXPECT_EQ(400U, strLine.size() - strLine.find('x') - 1);
    EXPECT_EQ('\n', strLine.back());
}

TEST_F(JournalFile, WhatFindsNoRoomIsCountedInsteadOfWaitedFor)
{
    Journal journal(m_anPipe[1]);
    for (int n = 0; n < 10000; ++n) { // far more than a pipe holds
        journal.write("line");
    }
    const std::string strFirst = read();
    EXPECT_EQ('\n', strFirst.back());
    EXPECT_EQ(std::string::npos, strFirst.find("lost"));
    const auto nTaken = std::count(strFirst.begin(), strFirst.end(), '\n');

    journal.write("next");
    journal.write("one more");

    const std::string strNext = read();
    EXPECT_NE(std::string::npos,
              strNext.find(" next (" + std::to_string(10000 - nTaken) + " lost)\n"))
        << strNext;
    EXPECT_NE(std::string::npos, strNext.find(" one more\n"));
}
