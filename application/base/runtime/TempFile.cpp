// A file of its own under /tmp that goes with its object.
#include "TempFile.h"

#include <cstdlib>
#include <new>

#include <fcntl.h>
#include <unistd.h>

TempFile::~TempFile()
{
    (void)remove(m_strPath.c_str()); // printed there; the stream closes with its object
}

int TempFile::create(int nFlags)
{
    if (nullptr != m_pStream) {
        (void)remove(m_strPath.c_str()); // printed there
        close();
    }
    try {
        m_strPath = "/tmp/temp_file.XXXXXX";
    } catch (const std::bad_alloc&) {
        return -1;
    }
    const int nFd = mkostemp(&m_strPath[0], O_CLOEXEC);
    if (nFd < 0) {
        return -1;
    }
    m_pStream = fdopen(nFd, streamMode(nFlags).c_str());
    if (nullptr == m_pStream) {
        ::close(nFd); // the file goes with the object
        return -1;
    }
    return 0;
}
