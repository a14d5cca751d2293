// The controller's serial port, held for the guard alone.
#pragma once

#include <array>
#include <cstddef>
#include <string>

enum PORT_E
{
    PORT_OPEN,
    PORT_MISSING, // not there, or not to be opened
    PORT_TAKEN    // another guard has it
};

/**
 * 115200 baud, 8N1, raw. Held by flock(2) besides TIOCEXCL, which root passes. Nothing blocks; what
 * the port does not take at once waits here, 4 KiB at most. One thread.
 */
class GuardPort
{
public:
    explicit GuardPort(std::string strPath);
    GuardPort(const GuardPort&) = delete;
    GuardPort& operator=(const GuardPort&) = delete;
    ~GuardPort();

    PORT_E open();
    void close();

    /** Why open() has failed; 0 behind one that has not. Taken is EBUSY. */
    int getError() const
    {
        return m_nError;
    }

    int getFd() const
    {
        return m_nFd;
    }
    const std::string& getPath() const
    {
        return m_strPath;
    }

    /** Whether a write has failed for good: close() is next. */
    bool isBroken() const
    {
        return m_bBroken;
    }

    /** Whether bytes wait: flush() when the descriptor is writable. */
    bool isPending() const
    {
        return m_uPending > 0;
    }
    void flush();

    /** @return false when the bytes found no room and were dropped whole */
    bool write(const char* pBytes, size_t uLength);

    /** Ahead of everything: what has not gone out is dropped, here and in the port. */
    void cut(const char* pBytes, size_t uLength);

    /**
     * What has come in.
     * @return bytes; 0: none; -1: the port is gone
     */
    int read(char* pBuffer, size_t uSize) const;

    /**
     * Cut the beam on a port that somebody else may have open, in any state: 0x18 in both
     * languages.
     * @return false when the port could not be opened or did not take it; errno tells why
     */
    static bool sendOff(const std::string& strPath);
    /** The same on a port that is open: whoever has no right to open one that is taken can. */
    static bool sendOff(int nFd);

private:
    PORT_E fail(int nFd, int nError);

    std::string m_strPath;
    int m_nFd = -1;
    int m_nError = 0;
    std::array<char, 4096> m_acPending{};
    size_t m_uPending = 0;
    bool m_bBroken = false;
};
