// A connection to the guard's operator socket: lines of JSON out and in.
#pragma once

#include <cstdint>
#include <string>

/** Owns its socket. One thread at a time. */
class GuardConnection
{
public:
    enum NEXT_E
    {
        NEXT_LINE,
        NEXT_LATE, // nothing whole came in time
        NEXT_GONE  // the guard has closed it, or it is not open
    };

    GuardConnection() = default;
    GuardConnection(const GuardConnection&) = delete;
    GuardConnection& operator=(const GuardConnection&) = delete;
    ~GuardConnection();

    /** Connect, unless connected already and the guard is still there. @return whether it is open
     */
    bool open(const std::string& strPath);

    void close();

    /** -1 when closed. */
    int getFd() const
    {
        return m_nFd;
    }

    /**
     * Send a line.
     * @param strLine  without its end
     * @param nPassed  a descriptor to pass along, which stays the caller's; -1: none
     * @return false when it did not go out whole; it is closed then
     */
    bool send(const std::string& strLine, int nPassed = -1);

    /** Wait for the next line, at most until a moment of the monotonic clock, in milliseconds. */
    NEXT_E next(std::string& strLine, uint64_t u64EndMs);

private:
    bool isAlive() const;

    int m_nFd = -1;
    std::string m_strInput;
};
