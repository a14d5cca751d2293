// A disk that is full behind the first bytes of a file.
#pragma once

#include <csignal>

#include <sys/resource.h>

#include <gtest/gtest.h>

/** While it lives this process writes no file beyond so many bytes. */
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t uBytes)
    {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        EXPECT_EQ(0, sigaction(SIGXFSZ, &ignore, &m_former));
        EXPECT_EQ(0, getrlimit(RLIMIT_FSIZE, &m_unlimited));
        const rlimit tight{uBytes, m_unlimited.rlim_max};
        EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &tight));
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    ~FileSizeLimit()
    {
        EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &m_unlimited));
        EXPECT_EQ(0, sigaction(SIGXFSZ, &m_former, nullptr));
    }

private:
    struct sigaction m_former = {};
    rlimit m_unlimited{};
};
