// Opening a file whose name comes from outside, below a folder and nowhere else.
#include "OpenBelow.h"

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class Descriptor
{
public:
    explicit Descriptor(int nFd) : m_nFd(nFd) {}
    Descriptor(Descriptor&& other) noexcept : m_nFd(other.release()) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor()
    {
        if (m_nFd >= 0) {
            close(m_nFd);
        }
    }

    int get() const
    {
        return m_nFd;
    }

    int release()
    {
        return std::exchange(m_nFd, -1);
    }

private:
    int m_nFd;
};

bool isRegular(const struct stat& info)
{
    return S_ISREG(info.st_mode);
}

int openFile(int nFolder, const char* pName)
{
    struct stat info = {};
    if (0 == fstatat(nFolder, pName, &info, AT_SYMLINK_NOFOLLOW) && !isRegular(info)) {
        return -1; // opening a device may already do anything
    }
    // And once more, of what was opened: it may have been put there just now.
    Descriptor file(openat(
        nFolder, pName, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666));
    if (file.get() < 0 || 0 != fstat(file.get(), &info) || !isRegular(info)) {
        return -1;
    }
    return file.release();
}

} // namespace

int openBelow(const char* pFolder, const char* pName)
{
    std::vector<Descriptor>
        vecFolder; // from the folder down: ".." of the kernel may lead elsewhere
    Descriptor top(open(pFolder, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (top.get() < 0) {
        return -1;
    }
    vecFolder.push_back(std::move(top));
    for (const char* pSlash = strchr(pName, '/'); nullptr != pSlash; pSlash = strchr(pName, '/')) {
        const std::string strPart(pName, pSlash);
        pName = pSlash + 1;
        if (strPart.empty() || "." == strPart) {
            continue;
        }
        if (".." == strPart) {
            vecFolder.pop_back();
            if (vecFolder.empty()) {
                return -1;
            }
            continue;
        }
        // With O_NOFOLLOW a link is no folder.
        Descriptor next(openat(vecFolder.back().get(), strPart.c_str(),
                               O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (next.get() < 0) {
            return -1;
        }
        vecFolder.push_back(std::move(next));
    }
    // What is empty, "." or ".." is a folder.
    return ('\0' == *pName) ? -1 : openFile(vecFolder.back().get(), pName);
}
