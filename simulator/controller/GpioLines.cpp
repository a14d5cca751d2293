// The pin files through which the service resets the virtual controller.
#include "GpioLines.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static const std::array<const char*, GpioLines::FILES> NAMES = {"export", "gpio106/direction",
                                                                "gpio106/value"};

GpioLines::~GpioLines()
{
    for (const int nFd : m_anFd) {
        if (nFd >= 0) {
            close(nFd);
        }
    }
}

bool GpioLines::open(const std::string& strFolder)
{
    for (const std::string& strPath : {strFolder, strFolder + "/gpio106"}) {
        if (0 != mkdir(strPath.c_str(), 0755) && EEXIST != errno) {
            return false;
        }
    }
    for (size_t i = 0; i < FILES; ++i) {
        const std::string strPath = strFolder + "/" + NAMES[i];
        if (0 != mkfifo(strPath.c_str(), 0666) && EEXIST != errno) {
            return false;
        }
        // Reading and writing: it opens without a writer, and no writer that leaves ends it.
        m_anFd[i] = ::open(strPath.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        struct stat status
        {
        };
        if (m_anFd[i] < 0 || 0 != fstat(m_anFd[i], &status)) {
            return false;
        }
        if (!S_ISFIFO(status.st_mode)) {
            errno = EEXIST;
            return false;
        }
    }
    return true;
}

std::vector<GpioLines::Store> GpioLines::read()
{
    std::vector<Store> vecStore;
    for (size_t i = 0; i < FILES; ++i) {
        std::array<char, 512> acBuffer{};
        const ssize_t nRead =
            (m_anFd[i] < 0) ? 0 : ::read(m_anFd[i], acBuffer.data(), acBuffer.size());
        std::string strText;
        for (ssize_t n = 0; n < nRead; ++n) {
            const char c = acBuffer[static_cast<size_t>(n)];
            const bool bEnd = '\0' == c || '\n' == c;
            if (!bEnd) {
                strText += c;
            }
            if (!strText.empty() && (bEnd || n + 1 == nRead)) {
                vecStore.push_back({NAMES[i], strText});
                strText.clear();
            }
        }
    }
    return vecStore;
}
