// A copy of a file that nobody can change any more.
#include "FileCopy.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <sha256.h>

static const unsigned ALLOW_SEALING = 2; // MFD_ALLOW_SEALING of memfd_create(2)
static const unsigned CLOSE_ON_EXEC = 1; // MFD_CLOEXEC
static const int ADD_SEALS = 1033;       // F_ADD_SEALS of fcntl(2)
static const int ALL_SEALS = 0xF;        // F_SEAL_SEAL, _SHRINK, _GROW and _WRITE

struct FileCopy::Work
{
    Work()
    {
        SHA256_Init(&sum);
    }
    Work(const Work&) = delete;
    Work& operator=(const Work&) = delete;
    ~Work()
    {
        for (const int nEach : {nFd, nCopy}) {
            if (nEach >= 0) {
                close(nEach);
            }
        }
    }

    int nFd = -1;
    int nCopy = -1;
    size_t uSize = 0;
    size_t uDone = 0;
    SHA256_CTX sum{};
    std::array<char, STEP_SIZE> acBlock{};
};

namespace {

/** Memory that can be sealed, or a file without a name where the kernel has no such. */
int makeFile()
{
    const auto nFd = static_cast<int>(
        syscall(SYS_memfd_create, "copy", static_cast<unsigned>(ALLOW_SEALING | CLOSE_ON_EXEC)));
    if (nFd >= 0) {
        return nFd;
    }
    std::array<char, 32> acName{"/tmp/kestrel-guard-XXXXXX"};
    const int nPlain = mkostemp(acName.data(), O_CLOEXEC);
    if (nPlain >= 0) {
        unlink(acName.data());
    }
    return nPlain;
}

std::string describe(const char* pWhat)
{
    return std::string(pWhat) + ": " + strerror(errno);
}

bool writeWhole(int nFd, const char* pBytes, size_t uLength)
{
    while (uLength > 0) {
        const ssize_t nWritten = write(nFd, pBytes, uLength);
        if (nWritten < 0 && EINTR == errno) {
            continue;
        }
        if (nWritten <= 0) {
            return false;
        }
        pBytes += nWritten;
        uLength -= static_cast<size_t>(nWritten);
    }
    return true;
}

} // namespace

FileCopy::FileCopy() = default;

FileCopy::~FileCopy()
{
    release();
}

void FileCopy::release()
{
    if (nullptr != m_pText) {
        munmap(const_cast<char*>(m_pText), m_uSize);
    }
    m_pText = nullptr;
}

FileCopy::STEP_E FileCopy::fail(std::string& strError, const std::string& strText)
{
    strError = strText;
    m_pWork.reset();
    return STEP_FAILED;
}

bool FileCopy::begin(int nFd, std::string& strError)
{
    release();
    m_uSize = 0;
    m_strSum.clear();
    m_pWork = std::make_unique<Work>();
    m_pWork->nFd = nFd;
    struct stat status = {};
    if (0 != fstat(nFd, &status) || !S_ISREG(status.st_mode)) {
        (void)fail(strError, "no regular file");
        return false;
    }
    if (status.st_size <= 0 || static_cast<uint64_t>(status.st_size) > MAX_SIZE) {
        (void)fail(strError, "the file is empty or over 32 MiB");
        return false;
    }
    m_pWork->uSize = static_cast<size_t>(status.st_size);
    m_pWork->nCopy = makeFile();
    if (m_pWork->nCopy < 0) {
        (void)fail(strError, describe("no room for the file"));
        return false;
    }
    return true;
}

FileCopy::STEP_E FileCopy::step(std::string& strError)
{
    Work& work = *m_pWork;
    const size_t uWanted = std::min(work.uSize - work.uDone, work.acBlock.size());
    const ssize_t nRead =
        pread(work.nFd, work.acBlock.data(), uWanted, static_cast<off_t>(work.uDone));
    if (nRead < 0 && EINTR == errno) {
        return STEP_MORE;
    }
    if (nRead <= 0) {
        return fail(strError,
                    (0 == nRead) ? "the file has shrunk" : describe("the file cannot be read"));
    }
    const auto uRead = static_cast<size_t>(nRead);
    if (!writeWhole(work.nCopy, work.acBlock.data(), uRead)) {
        return fail(strError, describe("no room for the file"));
    }
    SHA256_Update(&work.sum, reinterpret_cast<const uint8_t*>(work.acBlock.data()), uRead);
    work.uDone += uRead;
    return (work.uDone < work.uSize) ? STEP_MORE : finish(strError);
}

FileCopy::STEP_E FileCopy::finish(std::string& strError)
{
    Work& work = *m_pWork;
    (void)fcntl(work.nCopy, ADD_SEALS, ALL_SEALS); // a plain file without a name has no other user
    void* const pMap = mmap(nullptr, work.uSize, PROT_READ, MAP_PRIVATE, work.nCopy, 0);
    if (MAP_FAILED == pMap) {
        return fail(strError, describe("no room for the file"));
    }
    m_pText = static_cast<const char*>(pMap); // keeps the copy when its descriptor is closed
    m_uSize = work.uSize;
    std::array<char, SHA256_DIGEST_STRING_LENGTH> acSum{};
    m_strSum = SHA256_End(&work.sum, acSum.data());
    m_pWork.reset();
    return STEP_DONE;
}
