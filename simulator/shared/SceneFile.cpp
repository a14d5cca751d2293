// The shared record of the laser spot and of what is burnt, mapped from a file.
#include "SceneFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

/** @return null when the file cannot be used, errno says why */
static void* map(const std::string& strPath)
{
    const int nFd = ::open(strPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (nFd < 0) {
        return nullptr;
    }
    struct stat status
    {
    };
    void* pMapped = MAP_FAILED;
    if (0 == ::fstat(nFd, &status) && (status.st_size >= static_cast<off_t>(sizeof(SceneRecord)) ||
                                       0 == ::ftruncate(nFd, sizeof(SceneRecord)))) {
        pMapped = ::mmap(nullptr, sizeof(SceneRecord), PROT_READ | PROT_WRITE, MAP_SHARED, nFd, 0);
    }
    ::close(nFd);
    return MAP_FAILED == pMapped ? nullptr : pMapped;
}

SceneFile::SceneFile(const std::string& strPath) : m_pMapped(map(strPath))
{
    if (nullptr == m_pMapped) {
        m_pOwn = std::make_unique<SceneRecord>();
    }
    m_pRecord = isMapped() ? static_cast<SceneRecord*>(m_pMapped) : m_pOwn.get();
}

SceneFile::~SceneFile()
{
    if (nullptr != m_pMapped) {
        ::munmap(m_pMapped, sizeof(SceneRecord));
    }
}

bool SceneFile::isMapped() const
{
    return nullptr != m_pMapped;
}
