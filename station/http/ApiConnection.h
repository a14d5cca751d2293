// A connection to the operator's interface: collects a request, then is the stream that is
// answered.
#pragma once

#include <cstdint>
#include <string>

#include <httplib.h>

/** What a connection has asked for, as far as it matters before it is looked at. */
enum REQUEST_E
{
    REQUEST_PART,   // not all of it is there
    REQUEST_PLAIN,  // all of it, with its body
    REQUEST_OFF,    // the same, and it is the beam's
    REQUEST_WATCH,  // the same, and its answer does not end
    REQUEST_UPLOAD, // its head; a file follows
    REQUEST_WRONG,  // cannot be served; getProblem() says why
    REQUEST_GONE    // the peer has closed it
};

/**
 * Owns its socket, which does not block. One thread at a time: first whoever waits for requests
 * with receive(), then whoever answers one of them, between begin() and end().
 */
class ApiConnection : public httplib::Stream
{
public:
    static const size_t MAX_HEAD = 8192;
    static const size_t MAX_BODY = 65536;
    static const size_t MAX_FILE = 32U << 20;

    explicit ApiConnection(int nFd);
    ApiConnection(const ApiConnection&) = delete;
    ApiConnection& operator=(const ApiConnection&) = delete;
    ~ApiConnection() override;

    int getFd() const
    {
        return m_nFd;
    }

    /** Take what has come, and no more than a request may have. Never blocks. */
    REQUEST_E receive();

    /** What is there already; receive() without a look at the socket. */
    REQUEST_E classify();

    /** The name of what is wrong, of docs/api.yaml's; after REQUEST_WRONG. */
    const char* getProblem() const
    {
        return m_pProblem;
    }

    /** Whether a part of a request is there. */
    bool hasPart() const
    {
        return !m_strInput.empty();
    }

    /**
     * The request is answered from now on.
     * @param u64EndMs  of the monotonic clock: later, nothing can be read any more
     */
    void begin(uint64_t u64EndMs);

    /** What is left of the request goes. @return false when it has not all come: close it then */
    bool end();

    /** Send all of it, 5 s at most without the peer taking anything. */
    bool sendAll(const char* pText, size_t uLength);

    // For whoever answers.
    bool is_readable() const override;
    bool is_writable() const override;
    ssize_t read(char* pBuffer, size_t uSize) override;
    ssize_t write(const char* pText, size_t uLength) override;
    void get_remote_ip_and_port(std::string& strAddress, int& nPort) const override;
    void get_local_ip_and_port(std::string& strAddress, int& nPort) const override;
    socket_t socket() const override;

private:
    REQUEST_E wrong(const char* pProblem);
    bool waitFor(short sEvents, uint64_t u64EndMs) const;

    int m_nFd;
    std::string m_strInput; // from the request's first byte on
    size_t m_uHead = 0;     // of the request, with the empty line; 0 until it is there
    uint64_t m_u64Body = 0;
    uint64_t m_u64Read = 0; // of the request, by whoever answers
    uint64_t m_u64EndMs = 0;
    const char* m_pProblem = "";
};
