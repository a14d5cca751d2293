// The pin files through which the service resets the virtual controller.
#pragma once

#include <array>
#include <string>
#include <vector>

#include <poll.h>

/**
 * "export", "gpio106/direction" and "gpio106/value" below a folder, as FIFOs: a plain file would
 * keep old bytes, while the kernel takes every write as a store of its own. All three exist from
 * the start, since a FIFO cannot make the others appear in the moment of a write.
 */
class GpioLines
{
public:
    /** A store: which file, and the text without its end (zero byte or line end). */
    struct Store
    {
        std::string strFile;
        std::string strText;
    };

    static const size_t FILES = 3;

    GpioLines() = default;
    GpioLines(const GpioLines&) = delete;
    GpioLines& operator=(const GpioLines&) = delete;
    ~GpioLines();

    /** Make the folder's files. @return false with errno set */
    bool open(const std::string& strFolder);

    /** Descriptors for poll; -1 before open(). */
    const std::array<int, FILES>& getFds() const
    {
        return m_anFd;
    }

    /**
     * The stores since the last call, in order per file. Two of one file may arrive in one read.
     */
    std::vector<Store> read();

private:
    std::array<int, FILES> m_anFd{-1, -1, -1};
};
