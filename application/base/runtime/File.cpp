// A standard I/O stream with its path, and the file-system operations that the system needs.
#include "File.h"

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

File::~File()
{
    close();
}

std::string File::mode(int nFlags)
{
    std::string strMode;
    if (0 != (nFlags & FILE_FLAG_APPEND)) {
        strMode = "a";
    } else {
        strMode = (0 == (nFlags & (FILE_FLAG_WRITE | FILE_FLAG_CREATE))) ? "r" : "w";
    }
    strMode += (0 != (nFlags & FILE_FLAG_BINARY)) ? "b" : "t";
    if (0 != (nFlags & FILE_FLAG_READ) && 0 != (nFlags & FILE_FLAG_WRITE)) {
        strMode += "+";
    }
    return strMode;
}

std::string File::streamMode(int nFlags)
{
    std::string strMode = mode(nFlags);
    if ('t' == strMode[1]) {
        strMode.erase(1, 1);
    }
    return strMode + "e";
}

int64_t File::size(const char* pPath)
{
    struct stat info = {};
    return (0 == stat(pPath, &info)) ? static_cast<int64_t>(info.st_size) : -1;
}

int File::access(const char* pPath, int nMode)
{
    return ::access(pPath, nMode);
}

int File::makeDirectory(const char* pPath)
{
    if (0 != mkdir(pPath, 0777)) {
        perror("mkdir");
        return -1;
    }
    return 0;
}

int File::makeDirectoryPath(const char* pPath, size_t uOffset)
{
    if (nullptr == pPath || uOffset >= strlen(pPath)) {
        return 0;
    }
    const char* pSlash = strchr(pPath + uOffset, '/');
    if (nullptr == pSlash || pSlash == pPath) {
        return 0;
    }
    const std::string strPrefix(pPath, static_cast<size_t>(pSlash - pPath));
    int nRet = 0;
    if (0 != access(strPrefix.c_str(), F_OK)) {
        nRet = makeDirectory(strPrefix.c_str());
    }
    const int nRest = makeDirectoryPath(pPath, strPrefix.size() + 1);
    return (0 != nRet) ? nRet : nRest;
}

int File::remove(const char* pPath)
{
    if (0 != ::remove(pPath)) {
        perror("remove");
        return -1;
    }
    return 0;
}

int File::canonicalPath(const char* pPath, char* pResult)
{
    return (nullptr != realpath(pPath, pResult)) ? 0 : -1;
}

int File::open(const char* pPath, int nFlags)
{
    if (nullptr == pPath) {
        return -1;
    }
    close();
    try {
        m_strPath = pPath;
        m_pStream = fopen(pPath, streamMode(nFlags).c_str());
    } catch (const std::bad_alloc&) {
        return -1;
    }
    if (nullptr == m_pStream) {
        return -1;
    }
    // Some small C libraries don't know the mode's "e".
    (void)fcntl(fileno(m_pStream), F_SETFD, FD_CLOEXEC); // a good descriptor: can't fail
    return 0;
}

void File::close()
{
    if (nullptr != m_pStream) {
        fclose(m_pStream);
        m_pStream = nullptr;
    }
}

size_t File::read(void* pBuffer, size_t uCount)
{
    return (nullptr != m_pStream) ? fread(pBuffer, 1, uCount, m_pStream) : 0;
}

int File::readLine(char* pBuffer, int nSize)
{
    if (nSize <= 0) {
        return -1;
    }
    memset(pBuffer, 0, static_cast<size_t>(nSize));
    if (isEnd()) {
        return -1;
    }
    return (nullptr != fgets(pBuffer, nSize, m_pStream)) ? 0 : -1;
}

size_t File::write(const void* pData, size_t uCount)
{
    return (nullptr != m_pStream) ? fwrite(pData, 1, uCount, m_pStream) : 0;
}

int File::writeFormat(const char* pFormat, ...)
{
    if (nullptr == m_pStream) {
        return -1;
    }
    va_list args;
    va_start(args, pFormat);
    const int nRet = vfprintf(m_pStream, pFormat, args);
    va_end(args);
    return nRet;
}

int File::readFormat(const char* pFormat, ...)
{
    if (nullptr == m_pStream) {
        return -1;
    }
    va_list args;
    va_start(args, pFormat);
    const int nRet = vfscanf(m_pStream, pFormat, args);
    va_end(args);
    return nRet;
}

int File::flush()
{
    // fflush of a null stream would flush every stream of the process.
    return (nullptr != m_pStream) ? fflush(m_pStream) : -1;
}

bool File::seek(long lOffset, int nOrigin)
{
    if (nullptr == m_pStream) {
        return false;
    }
    int64_t s64Target = static_cast<int64_t>(tell());
    // Two steps: position plus offset may not fit where long has 64 bits.
    const int64_t s64Room = static_cast<int64_t>(length()) - s64Target;
    s64Target += std::min(static_cast<int64_t>(lOffset), s64Room);
    return 0 == fseek(m_pStream, static_cast<long>(std::max<int64_t>(s64Target, 0)), nOrigin);
}

long File::tell()
{
    return (nullptr != m_pStream) ? ftell(m_pStream) : -1;
}

bool File::isEnd()
{
    return nullptr == m_pStream || 0 != feof(m_pStream);
}

long File::length()
{
    if (nullptr == m_pStream) {
        return -1;
    }
    const long lPosition = ftell(m_pStream);
    if (lPosition < 0 || 0 != fseek(m_pStream, 0, SEEK_END)) {
        return -1;
    }
    const long lLength = ftell(m_pStream);
    (void)fseek(m_pStream, lPosition, SEEK_SET); // was there a moment ago
    return lLength;
}
