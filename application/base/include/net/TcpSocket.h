// A TCP socket: creation, listening, accepting, and buffer sizes within the kernel's limits.
#pragma once

#include "Socket.h"

/** Adds no state to Socket; ownership, results and threads as described there. */
class TcpSocket : public Socket
{
public:
    TcpSocket() = default;
    explicit TcpSocket(int nFd) : Socket(nFd) {}

    /**
     * Open a stream socket, close-on-exec.
     * @return -1 with a descriptor already there (which stays), or on failure, logged at level 7
     * and told on standard error
     */
    int create();

    /** A failure is printed on standard error, not logged. */
    int listen(int nBacklog);

    /**
     * Accept one pending connection, close-on-exec, into a socket without a descriptor.
     *
     * Deliberate: interrupted by a signal it returns 0 with the peer's descriptor -1.
     * @return -1, unlogged, on failure, nothing pending included; errno says why
     */
    int accept(TcpSocket& peer);

    /**
     * @return mask: 1 readable, 2 writable, 4 exception; 4 without a descriptor, or when a signal
     * interrupts it. Never blocks
     */
    int checkState() const;

    /**
     * Whether something sent is unacknowledged and nothing has been acknowledged for so long, by
     * TCP_INFO. A peer that merely reads nothing is not silent: it has acknowledged what was sent,
     * and it answers the probes of its closed window, which come at ever longer intervals. Not
     * logged.
     * @param u32Ms  milliseconds, seconds rather than less
     * @return false also without a descriptor, and where the kernel does not say
     */
    bool isPeerSilent(uint32_t u32Ms) const;

    /**
     * Set the buffer's size, clamped to the limits of the kernel's tcp_rmem and tcp_wmem; runs a
     * shell command to read them. A size beyond them is corrected and logged at level 2.
     */
    int setOptRcvBuf(int32_t nSize) override;
    /** Deliberate: when the limits cannot be read, the size goes to the receive buffer. */
    int setOptSndBuf(int32_t nSize) override;

    /** Log options and addresses at level 7; an option that can't be read is an assertion. */
    void printCurOpts();
};
