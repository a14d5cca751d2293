// Lets the kernel take less of a send than it could, where no peer can bring it about.
#include "ShortSend.h"

#include <algorithm>

#include <sys/socket.h>
#include <sys/uio.h>

static ShortSend* g_pShortSend;

ShortSend::ShortSend(size_t uMost) : m_uMost(uMost)
{
    g_pShortSend = this;
}

ShortSend::~ShortSend()
{
    g_pShortSend = nullptr;
}

/** Notes a call and leaves out what it is not to take. */
struct ShortSendNote
{
    static std::vector<iovec> take(const msghdr& message, int nFlags)
    {
        std::vector<iovec> vecPiece(message.msg_iov, message.msg_iov + message.msg_iovlen);
        ShortSend::Call call;
        call.nFlags = nFlags;
        size_t uLeft = g_pShortSend->m_uMost;
        for (iovec& piece : vecPiece) {
            call.vecLength.push_back(piece.iov_len);
            piece.iov_len = std::min(piece.iov_len, uLeft);
            uLeft -= piece.iov_len;
        }
        g_pShortSend->m_vecCall.push_back(call);
        return vecPiece;
    }
};

// The linker gives calls of sendmsg to the first, and the second's calls to sendmsg.
extern "C" ssize_t __wrap_sendmsg(int nFd, const msghdr* pMessage, int nFlags);
extern "C" ssize_t __real_sendmsg(int nFd, const msghdr* pMessage, int nFlags);

ssize_t __wrap_sendmsg(int nFd, const msghdr* pMessage, int nFlags)
{
    if (nullptr == g_pShortSend) {
        return __real_sendmsg(nFd, pMessage, nFlags);
    }
    std::vector<iovec> vecPiece = ShortSendNote::take(*pMessage, nFlags);
    msghdr message = *pMessage;
    message.msg_iov = vecPiece.data();
    return __real_sendmsg(nFd, &message, nFlags);
}
