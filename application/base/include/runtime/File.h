// A standard I/O stream with its path, and the file-system operations that the system needs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

/** What a file is opened for (a mask). */
enum FILE_FLAG_E
{
    FILE_FLAG_READ = 1,
    FILE_FLAG_WRITE = 2,
    FILE_FLAG_ACCEPTED = 4, // Deliberate: accepted, without effect on the mode
    FILE_FLAG_BINARY = 8,
    FILE_FLAG_APPEND = 16,
    FILE_FLAG_CREATE = 64
};

/**
 * Owns its stream and closes it with the object. The descriptor is close-on-exec.
 *
 * One thread at a time. Failures are results; only the creation of a directory and a removal print
 * the system's error, on standard error. Without a stream every operation fails quietly.
 */
class File
{
public:
    File() = default;
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    virtual ~File();

    /** The fopen(3) mode of a FILE_FLAG_E mask, e.g. "wt" for 70. */
    static std::string mode(int nFlags);

    /** @return bytes, -1 when stat(2) fails */
    static int64_t size(const char* pPath);

    /** @return the result of access(2) for nMode, F_OK and the like */
    static int access(const char* pPath, int nMode);

    /** With mode 0777. @return 0, or -1 (the system's error printed after "mkdir") */
    static int makeDirectory(const char* pPath);

    /**
     * Make every missing directory of a path that ends with "/"; what follows the last "/" is not
     * looked at. A directory that can't be made does not end the walk.
     * @param uOffset  where the first component begins: 1 for an absolute path, since an empty
     *                 component ends the walk
     * @return 0, or -1 when a directory could not be made
     */
    static int makeDirectoryPath(const char* pPath, size_t uOffset);

    /** @return 0, or -1 (the system's error printed after "remove") */
    static int remove(const char* pPath);

    /** @param pResult  PATH_MAX bytes @return 0 or -1, realpath(3) */
    static int canonicalPath(const char* pPath, char* pResult);

    /**
     * A stream that is still open is closed first.
     * @param nFlags  FILE_FLAG_E mask
     * @return 0, or -1 for a null path, without memory, or when the file can't be opened
     */
    int open(const char* pPath, int nFlags);

    void close();

    /** @return the number of bytes read */
    size_t read(void* pBuffer, size_t uCount);

    /**
     * Read a line with its line end, as far as it fits; the buffer is cleared first.
     * @return 0, or -1 at the end of the file
     */
    int readLine(char* pBuffer, int nSize);

    /** @return the number of bytes written */
    size_t write(const void* pData, size_t uCount);

    /** @return as fprintf(3), -1 without a stream */
    int writeFormat(const char* pFormat, ...) __attribute__((format(printf, 2, 3)));

    /** @return as fscanf(3), -1 without a stream */
    int readFormat(const char* pFormat, ...) __attribute__((format(scanf, 2, 3)));

    /** @return 0 or -1 */
    int flush();

    /**
     * Deliberate: the offset counts from the current position whatever the origin says; the sum,
     * kept between 0 and the file's length, goes to fseek(3) with the origin unchanged.
     * @return true when fseek succeeds
     */
    bool seek(long lOffset, int nOrigin);

    /** @return the position, -1 without a stream */
    long tell();

    /** @return the stream's end-of-file state, true without a stream */
    bool isEnd();

    /** @return bytes of the open file, -1 without a stream or when it has no end to seek to */
    long length();

    /** The stream, null when closed; it stays this object's. */
    FILE* getStream() const
    {
        return m_pStream;
    }

    /** The path last given, or made up. */
    const std::string& getPath() const
    {
        return m_strPath;
    }

protected:
    /**
     * The mode as the C library gets it: close-on-exec, and without the "t", which means nothing,
     * and after which some small libraries don't see the "+".
     */
    static std::string streamMode(int nFlags);

    FILE* m_pStream = nullptr;
    std::string m_strPath;
};
