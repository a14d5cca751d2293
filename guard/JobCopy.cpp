// A copy of a job's file that nobody can change any more.
#include "JobCopy.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

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

namespace {

/** Memory that can be sealed, or a file without a name where the kernel has no such. */
int makeFile()
{
    const auto nFd = static_cast<int>(
        syscall(SYS_memfd_create, "job", static_cast<unsigned>(ALLOW_SEALING | CLOSE_ON_EXEC)));
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

} // namespace

JobCopy::~JobCopy()
{
    clear();
}

void JobCopy::clear()
{
    if (nullptr != m_pText) {
        munmap(const_cast<char*>(m_pText), m_uSize);
    }
    m_pText = nullptr;
    m_uSize = 0;
    m_strSum.clear();
}

bool JobCopy::take(int nFd, std::string& strError)
{
    clear();
    struct stat status = {};
    if (0 != fstat(nFd, &status) || !S_ISREG(status.st_mode)) {
        strError = "the job is no regular file";
        return false;
    }
    if (status.st_size <= 0 || static_cast<uint64_t>(status.st_size) > MAX_SIZE) {
        strError = "the job is empty or over 32 MiB";
        return false;
    }
    const int nCopy = makeFile();
    if (nCopy < 0) {
        strError = describe("no room for the job");
        return false;
    }
    const bool bFilled = fill(nFd, nCopy, static_cast<size_t>(status.st_size), strError);
    close(nCopy); // the mapping keeps it
    return bFilled;
}

bool JobCopy::fill(int nFd, int nCopy, size_t uSize, std::string& strError)
{
    std::array<char, 65536> acBlock{};
    SHA256_CTX sum;
    SHA256_Init(&sum);
    for (size_t uDone = 0; uDone < uSize;) {
        const size_t uWanted = (uSize - uDone < acBlock.size()) ? uSize - uDone : acBlock.size();
        const ssize_t nRead = pread(nFd, acBlock.data(), uWanted, static_cast<off_t>(uDone));
        if (nRead <= 0) {
            strError = (0 == nRead) ? "the job has shrunk" : describe("the job cannot be read");
            return false;
        }
        if (nRead != write(nCopy, acBlock.data(), static_cast<size_t>(nRead))) {
            strError = describe("no room for the job");
            return false;
        }
        SHA256_Update(&sum, reinterpret_cast<const uint8_t*>(acBlock.data()),
                      static_cast<size_t>(nRead));
        uDone += static_cast<size_t>(nRead);
    }
    (void)fcntl(nCopy, ADD_SEALS, ALL_SEALS); // a plain file without a name has no other user
    void* const pMap = mmap(nullptr, uSize, PROT_READ, MAP_PRIVATE, nCopy, 0);
    if (MAP_FAILED == pMap) {
        strError = describe("no room for the job");
        return false;
    }
    m_pText = static_cast<const char*>(pMap);
    m_uSize = uSize;
    std::array<char, SHA256_DIGEST_STRING_LENGTH> acSum{};
    m_strSum = SHA256_End(&sum, acSum.data());
    return true;
}
