// The pin files through which the service resets the virtual controller.
#pragma once

#include <array>
#include <string>
#include <vector>

/**
 * "export" below a folder, and, once "106" has been stored there, "gpio106/direction" and
 * "gpio106/value", as the kernel has them.
 *
 * They are FIFOs: a plain file would keep old bytes, while the kernel takes every write as a store
 * of its own. The kernel has done what a store says before the writer goes on; so "export" and
 * "direction" are kept full: a writer waits until its opening has been noticed. These two therefore
 * take one store per opening.
 */
class GpioLines
{
public:
    /** A store: which file, and the text without its end (zero byte or line end). */
    struct Store
    {
        std::string strFile;
        std::string strText;
        bool bTaken; // the kernel would have taken it
    };

    GpioLines() = default;
    GpioLines(const GpioLines&) = delete;
    GpioLines& operator=(const GpioLines&) = delete;
    ~GpioLines();

    /** Make the folder and "export". @return false with errno set */
    bool open(const std::string& strFolder);

    /** Descriptors for poll. */
    std::vector<int> getFds() const;

    /** The stores since the last call, in order. Two of "value" may arrive in one read. */
    std::vector<Store> read();

private:
    enum FILE_E
    {
        FILE_EXPORT,
        FILE_DIRECTION,
        FILE_VALUE,
        FILES
    };

    struct Pipe
    {
        int nFd = -1;    // both ends: it opens without a writer, and no writer that leaves ends it
        int nWatch = -1; // of its openings; only of those that are kept full
        bool bFull = false;
        bool bAwaited = false; // somebody has opened it since it was emptied, and may wait to write
    };

    bool make(FILE_E eFile, bool bFull);
    void fill(Pipe& pipe);
    void noticeOpenings();
    void readFile(FILE_E eFile, std::vector<Store>& vecStore);
    bool take(FILE_E eFile, const std::string& strText);

    std::string m_strFolder;
    int m_nInotify = -1;
    std::array<Pipe, FILES> m_aPipe;
    bool m_bOutput = false;
};
