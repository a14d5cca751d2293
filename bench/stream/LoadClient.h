// One client of "/live" in the load generator: takes the stream off its socket and checks it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/** One whole part of a stream, as its client got it. */
struct Part
{
    uint32_t u32Client;
    uint32_t u32Size;  // of the picture
    int64_t s64Stamp;  // X-Timestamp: microseconds, CLOCK_REALTIME
    int64_t s64Done;   // its boundary's last byte was read: microseconds, CLOCK_MONOTONIC
    uint64_t u64Begin; // of the part header, in bytes since the connection's first
    uint64_t u64End;
};

/**
 * Reads part headers and boundaries and compares them byte by byte; the pictures between are
 * counted and thrown away in the kernel (MSG_TRUNC, tcp(7)), so that the reading itself costs
 * little. One thread.
 */
class LoadClient
{
public:
    /** @param vecPart  gets each whole part; borrowed for the object's life */
    LoadClient(uint32_t u32Number, std::vector<Part>& vecPart);
    ~LoadClient();
    LoadClient(const LoadClient&) = delete;
    LoadClient& operator=(const LoadClient&) = delete;

    /**
     * Connect to the service at a dotted address, ask for "/live" and read the answer's header.
     * @return false after a message on standard error
     */
    bool start(const char* pAddress, uint16_t u16Port);

    /**
     * Read what is there, uMost bytes at most. Never blocks.
     * @return false after a message on standard error: closed, failed, or not the agreed bytes
     */
    bool take(size_t uMost);

    int descriptor() const;
    uint16_t localPort() const;
    /** Bytes read so far. */
    uint64_t taken() const;
    /** Whole parts so far. */
    uint32_t parts() const;

private:
    enum STATE_E
    {
        STATE_HEADER,
        STATE_PICTURE,
        STATE_BOUNDARY,
    };

    bool complain(const char* pWhat) const;
    bool finishText();
    bool parseHeader();

    const uint32_t m_u32Number;
    std::vector<Part>& m_vecPart;
    int m_nSocket = -1;
    STATE_E m_eState = STATE_HEADER;
    std::string m_strText; // header or boundary as far as it has come
    Part m_part{};
    size_t m_uLeft = 0; // bytes of the picture still to come
    uint64_t m_u64Taken = 0;
    uint32_t m_u32Parts = 0;
};
