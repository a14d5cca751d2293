// A message that may carry a descriptor.
#pragma once

#include <array>
#include <cstddef>
#include <cstring>

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

/**
 * Send bytes over a Unix socket, with a descriptor; allocates nothing.
 * @param nPassed  stays the caller's; negative: none goes along
 * @param nFlags  and the result: as sendmsg(2) has them
 */
inline ssize_t sendWithDescriptor(int nSocket, const void* pData, size_t uSize, int nPassed,
                                  int nFlags)
{
    iovec piece{const_cast<void*>(pData), uSize};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> acControl{};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    if (nPassed >= 0) {
        message.msg_control = acControl.data();
        message.msg_controllen = acControl.size();
        cmsghdr* const pHeader = CMSG_FIRSTHDR(&message);
        pHeader->cmsg_level = SOL_SOCKET;
        pHeader->cmsg_type = SCM_RIGHTS;
        pHeader->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(pHeader), &nPassed, sizeof(nPassed));
    }
    return sendmsg(nSocket, &message, nFlags);
}
