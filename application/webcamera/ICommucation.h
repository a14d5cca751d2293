// A connection's direct way back to its peer, past the send queue.
#pragma once

class ICommucation
{
public:
    ICommucation() = default;
    ICommucation(const ICommucation&) = delete;
    ICommucation& operator=(const ICommucation&) = delete;
    virtual ~ICommucation() = default;

    /**
     * Write all bytes now; the implementation says how long it may block.
     * @param nLength  bytes
     * @return 0, or non-zero when not everything could be written
     */
    virtual int write(const void* pData, int nLength) = 0;
};
