// Lets the kernel take less of a send than it could, where no peer can bring it about.
#pragma once

#include <cstddef>
#include <vector>

/**
 * For its life every sendmsg(2) of the code under test hands over the first bytes of its pieces
 * only, as many as it is told. For programs linked with --wrap=sendmsg; one object at a time, made
 * and destroyed while nobody sends.
 */
class ShortSend
{
public:
    struct Call
    {
        std::vector<size_t> vecLength; // of the pieces that were given
        int nFlags = 0;
    };

    /** @param uMost  bytes that each call takes at most */
    explicit ShortSend(size_t uMost);
    ShortSend(const ShortSend&) = delete;
    ShortSend& operator=(const ShortSend&) = delete;
    ~ShortSend();

    /** The calls so far, as they were made. */
    const std::vector<Call>& calls() const
    {
        return m_vecCall;
    }

private:
    friend struct ShortSendNote;

    size_t m_uMost;
    std::vector<Call> m_vecCall;
};
