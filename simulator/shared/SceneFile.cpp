// The shared record of the laser spot, mapped from a file.
#include "SceneFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

SceneFile::SceneFile(const std::string& strPath)
{
    const int nFd = ::open(strPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (nFd < 0) {
        return;
    }
    struct stat status
    {
    };
    const bool bLongEnough =
        0 == ::fstat(nFd, &status) && (status.st_size >= static_cast<off_t>(sizeof(SceneState)) ||
                                       0 == ::ftruncate(nFd, sizeof(SceneState)));
    if (bLongEnough) {
        void* pMapped =
            ::mmap(nullptr, sizeof(SceneState), PROT_READ | PROT_WRITE, MAP_SHARED, nFd, 0);
        m_pMapped = MAP_FAILED == pMapped ? nullptr : pMapped;
    }
    ::close(nFd);
}

SceneFile::~SceneFile()
{
    if (nullptr != m_pMapped) {
        ::munmap(m_pMapped, sizeof(SceneState));
    }
}

bool SceneFile::isMapped() const
{
    return nullptr != m_pMapped;
}

SceneState& SceneFile::getState()
{
    return nullptr == m_pMapped ? m_own : *static_cast<SceneState*>(m_pMapped);
}
