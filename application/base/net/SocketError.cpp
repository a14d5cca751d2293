// The texts that sockets log for errno values.
#include "SocketError.h"

#include <cerrno>

namespace {

struct ErrorText
{
    int nErrno;
    uint32_t u32Level;
    const char* pText;
};

// sic: the texts, odd spacing and spelling included, are agreed.
const ErrorText ERROR_TEXTS[] = {
    {EINTR, 2, "EINTR  A signal occurred before any data was transmitted; see signal(7).\n"},
    {EAGAIN, 5, "EWOULDBLOCK or EAGAIN\n"},
    {EACCES, 2,
     "EACCES: Write permission is denied on the destination socket file,  or  search permission is denied for one of the directories the path prefix.\n"},
    {EBADF, 2, "EBADF:An invalid descriptor was specified.\n"},
    {ECONNRESET, 2, "ECONNRESET:Connection reset by peer.\n"},
    {EDESTADDRREQ, 2,
     "EDESTADDRREQ:The socket is not connection-mode, and no peer address is set.\n"},
    {EFAULT, 2, "EFAULT An invalid user space address was specified for an argument.\n"},
    {EINVAL, 2, "EINVAL Invalid argument passed.\n"},
    {EISCONN, 2,
     "EISCONN The connection-mode socket was connected already but a recipient was specified.\n"},
    {EMSGSIZE, 2,
     "EMSGSIZE The socket type requires that message be sent atomically, and the size of the message to be sent made this impossible.\n"},
    {ENOBUFS, 2,
     "ENOBUFS The output queue for a network interface was full.  This generally indicates that the interface has stopped sending,  but  may  becaused  by  transient congestion.  (Normally, this does not occur in Linux.  Packets are just silently dropped when a device queue overflows.)\n"},
    {ENOMEM, 2, "ENOMEM No memory available.\n"},
    {ENOTCONN, 2, "ENOTCONN The socket is not connected, and no target has been given.\n"},
    {ENOTSOCK, 2, "ENOTSOCK The file descriptor sockfd does not refer to a socket.\n"},
    {EOPNOTSUPP, 2,
     "EOPNOTSUPP Some bit in the flags argument is inappropriate for the socket type.\n"},
    {EPIPE, 2,
     "EPIPE The local end has been shut down on a connection oriented socket.  In this case, the process will also receive  a  SIGPIPE  unless MSG_NOSIGNAL is set.\n"},
};

} // namespace

const char* socketErrorText(int nErrno, uint32_t& u32Level)
{
    for (const ErrorText& entry : ERROR_TEXTS) {
        if (entry.nErrno == nErrno) {
            u32Level = entry.u32Level;
            return entry.pText;
        }
    }
    u32Level = 2;
    return "Unknow socket error.\n"; // sic
}

const char* socketOptionErrorText(int nErrno)
{
    switch (nErrno) {
    case EBADF:
        return "The argument sockfd is not a valid descriptor.\n";
    case EFAULT:
        return "The address pointed to by optval is not in a valid part of the process address space.\n";
    case EINVAL:
        return "optlen  invalid  in  setsockopt().\n";
    case ENOPROTOOPT:
        return "The option is unknown at the level indicated.\n";
    case ENOTSOCK:
        return "The file descriptor sockfd does not refer to a socket.\n";
    default:
        return nullptr;
    }
}
