// The pin files through which the service resets the virtual controller.
#include "GpioLines.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

static const char* const NAMES[] = {"export", "gpio106/direction", "gpio106/value"};
static const size_t PIPE_SIZE = 4096; // a page, the least that the kernel has
static const char FILLER = '\x7f';

GpioLines::~GpioLines()
{
    for (const Pipe& pipe : m_aPipe) {
        if (pipe.nFd >= 0) {
            close(pipe.nFd);
        }
    }
    if (m_nInotify >= 0) {
        close(m_nInotify);
    }
}

bool GpioLines::open(const std::string& strFolder)
{
    m_strFolder = strFolder;
    m_nInotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    // A former program's pins are not exported to this one.
    for (const FILE_E eFile : {FILE_DIRECTION, FILE_VALUE}) {
        unlink((strFolder + "/" + NAMES[eFile]).c_str());
    }
    rmdir((strFolder + "/gpio106").c_str());
    if (m_nInotify < 0 || (0 != mkdir(strFolder.c_str(), 0755) && EEXIST != errno)) {
        return false;
    }
    return make(FILE_EXPORT, true);
}

bool GpioLines::make(FILE_E eFile, bool bFull)
{
    const std::string strPath = m_strFolder + "/" + NAMES[eFile];
    if (0 != mkfifo(strPath.c_str(), 0666) && EEXIST != errno) {
        return false;
    }
    Pipe& pipe = m_aPipe[eFile];
    pipe.nFd = ::open(strPath.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    struct stat status
    {
    };
    if (pipe.nFd < 0 || 0 != fstat(pipe.nFd, &status)) {
        return false;
    }
    if (!S_ISFIFO(status.st_mode)) {
        errno = EEXIST;
        return false;
    }
    if (bFull) {
        if (fcntl(pipe.nFd, F_SETPIPE_SZ, static_cast<int>(PIPE_SIZE)) < 0) {
            return false;
        }
        fill(pipe);
        pipe.nWatch = inotify_add_watch(m_nInotify, strPath.c_str(), IN_OPEN);
        return pipe.nWatch >= 0;
    }
    return true;
}

void GpioLines::fill(Pipe& pipe)
{
    const std::string strFiller(PIPE_SIZE, FILLER);
    pipe.bFull = write(pipe.nFd, strFiller.data(), strFiller.size()) > 0;
}

std::vector<int> GpioLines::getFds() const
{
    std::vector<int> vecFd{m_nInotify};
    for (const Pipe& pipe : m_aPipe) {
        if (pipe.nFd >= 0 && !pipe.bFull) {
            vecFd.push_back(pipe.nFd);
        }
    }
    return vecFd;
}

void GpioLines::noticeOpenings()
{
    alignas(inotify_event) std::array<char, 4096> acBuffer{};
    const ssize_t nRead =
        (m_nInotify < 0) ? 0 : ::read(m_nInotify, acBuffer.data(), acBuffer.size());
    for (ssize_t nPos = 0; nPos < nRead;) {
        const auto* const pEvent = reinterpret_cast<const inotify_event*>(acBuffer.data() + nPos);
        nPos += static_cast<ssize_t>(sizeof(inotify_event) + pEvent->len);
        for (Pipe& pipe : m_aPipe) {
            if (pipe.nWatch != pEvent->wd) {
                continue;
            }
            if (!pipe.bFull) {
                pipe.bAwaited = true;
                continue;
            }
            // The pin's files are there when the write that exports it returns.
            if (&pipe == &m_aPipe[FILE_EXPORT] && m_aPipe[FILE_VALUE].nFd < 0) {
                (void)mkdir((m_strFolder + "/gpio106").c_str(), 0755);
                (void)(make(FILE_DIRECTION, true) && make(FILE_VALUE, false));
            }
            std::array<char, PIPE_SIZE> acFiller{};
            pipe.bFull = ::read(pipe.nFd, acFiller.data(), acFiller.size()) < 0;
        }
    }
}

std::vector<GpioLines::Store> GpioLines::read()
{
    noticeOpenings();
    std::vector<Store> vecStore;
    for (const FILE_E eFile : {FILE_EXPORT, FILE_DIRECTION, FILE_VALUE}) {
        if (m_aPipe[eFile].nFd >= 0 && !m_aPipe[eFile].bFull) {
            readFile(eFile, vecStore);
        }
    }
    return vecStore;
}

void GpioLines::readFile(FILE_E eFile, std::vector<Store>& vecStore)
{
    Pipe& pipe = m_aPipe[eFile];
    std::array<char, 512> acBuffer{};
    const ssize_t nRead = ::read(pipe.nFd, acBuffer.data(), acBuffer.size());
    std::string strText;
    for (ssize_t n = 0; n < nRead; ++n) {
        const char c = acBuffer[static_cast<size_t>(n)];
        const bool bEnd = '\0' == c || '\n' == c;
        if (!bEnd) {
            strText += c;
        }
        if (!strText.empty() && (bEnd || n + 1 == nRead)) {
            vecStore.push_back({NAMES[eFile], strText, take(eFile, strText)});
            strText.clear();
        }
    }
    if (nRead > 0 && pipe.nWatch >= 0 && !pipe.bAwaited) {
        fill(pipe);
    }
    pipe.bAwaited = false;
}

bool GpioLines::take(FILE_E eFile, const std::string& strText)
{
    switch (eFile) {
    case FILE_EXPORT:
        return "106" == strText;
    case FILE_DIRECTION:
        m_bOutput = "out" == strText || "low" == strText || "high" == strText;
        return m_bOutput || "in" == strText;
    default:
        return m_bOutput && ("0" == strText || "1" == strText);
    }
}
