// stream-floor: the least that a stream can cost, beside which the service is measured.
//
// usage: stream-floor PORT [copies] [pauses] [one-call]
//
// One thread, one loop. It takes its pictures from the same (virtual) camera as the service, by the
// same driver calls with as many buffers: wait with poll, dequeue the filled buffer, give the one
// before back. It then hands the same three blocks (part header, picture, boundary) to each client
// with send(2), in the order in which they came, straight from the camera's memory: no copy, no
// queue, no lock, no memory allocated. The sockets have the service's buffers and keep-alive. What
// a socket does not take at once is sent on when it is writable, after all others have had their
// blocks.
//
// With "one-call" it hands the three blocks over in one sendmsg(2), and the sockets have all
// options that the service sets.
//
// With "copies" and "pauses" the loop also does what the service has to do for each frame by
// agreement: it copies the picture into a block of its own and gives the camera's buffer back
// before the first send; it pauses for 10 ms after the last.
//
// So frame and time stamp become available to both programs in the same way and at the same cost,
// and what the service takes beyond the floor is its own: threads, hand-over, queues, blocks.
// It is meant for clients that read at full speed: one that does not keeps the others waiting. A
// client that goes ends it.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

const unsigned BUFFERS = 2; // as the service
const int SOCKET_BUFFER = 35840;
const int MOST_UNSENT = 1; // bytes
const char* const ANSWER =
    "HTTP/1.0 200 OK\r\nConnection: close\r\n"
    "Content-Type: multipart/x-mixed-replace;boundary=boundarydonotcross\r\n\r\n";
const char BOUNDARY[] = "\r\n--boundarydonotcross\r\n";

struct Block
{
    const char* pBytes;
    size_t nBytes;
};

struct Rest // what a client has not taken of the current frame
{
    int nSocket;
    int nBlock;
    size_t nSent; // of that block
};

void check(bool bGood, const char* pWhat)
{
    if (!bGood) {
        perror(pWhat);
        exit(1);
    }
}

class Camera
{
public:
    Camera() : m_nFd(::open("/dev/video0", O_RDWR | O_NONBLOCK | O_CLOEXEC))
    {
        check(m_nFd >= 0, "/dev/video0");
        v4l2_format format{};
        format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        format.fmt.pix.width = 640;
        format.fmt.pix.height = 480;
        format.fmt.pix.pixelformat = V4L2_PIX_FMT_MJPEG;
        call(VIDIOC_S_FMT, &format, "VIDIOC_S_FMT");
        v4l2_requestbuffers request{};
        request.count = BUFFERS;
        request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        request.memory = V4L2_MEMORY_MMAP;
        call(VIDIOC_REQBUFS, &request, "VIDIOC_REQBUFS");
        for (unsigned i = 0; i < BUFFERS; ++i) {
            m_buffer = {};
            m_buffer.index = i;
            m_buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            m_buffer.memory = V4L2_MEMORY_MMAP;
            call(VIDIOC_QUERYBUF, &m_buffer, "VIDIOC_QUERYBUF");
            m_apBytes[i] = ::mmap(nullptr, m_buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED,
                                  m_nFd, static_cast<off_t>(m_buffer.m.offset));
            check(MAP_FAILED != m_apBytes[i], "mmap");
            call(VIDIOC_QBUF, &m_buffer, "VIDIOC_QBUF");
        }
        int nType = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        call(VIDIOC_STREAMON, &nType, "VIDIOC_STREAMON");
    }

    int descriptor() const
    {
        return m_nFd;
    }

    /** The next picture, which stays where it is until the next call. */
    Block take()
    {
        const v4l2_buffer previous = m_buffer;
        m_buffer = {};
        m_buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        m_buffer.memory = V4L2_MEMORY_MMAP;
        call(VIDIOC_DQBUF, &m_buffer, "VIDIOC_DQBUF");
        if (m_bTaken) {
            v4l2_buffer back = previous;
            call(VIDIOC_QBUF, &back, "VIDIOC_QBUF");
        }
        m_bTaken = true;
        return {static_cast<const char*>(m_apBytes[m_buffer.index]), m_buffer.bytesused};
    }

    /** A copy of the next picture, to be freed; the camera has its buffer back. */
    Block copy()
    {
        const Block picture = take();
        m_bTaken = false; // given back here already
        auto* pCopy = static_cast<char*>(malloc(picture.nBytes));
        check(nullptr != pCopy, "malloc");
        memcpy(pCopy, picture.pBytes, picture.nBytes);
        call(VIDIOC_QBUF, &m_buffer, "VIDIOC_QBUF");
        return {pCopy, picture.nBytes};
    }

private:
    void call(unsigned long nRequest, void* pArgument, const char* pName) const
    {
        check(0 == ::ioctl(m_nFd, nRequest, pArgument), pName);
    }

    const int m_nFd;
    void* m_apBytes[BUFFERS];
    v4l2_buffer m_buffer{};
    bool m_bTaken = false;
};

int listenOn(uint16_t u16Port)
{
    const int nListener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int nOn = 1;
    (void)::setsockopt(nListener, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof(nOn));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(u16Port);
    check(0 == ::bind(nListener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) &&
              0 == ::listen(nListener, 20),
          "listen");
    return nListener;
}

int acceptClient(int nListener, bool bOneCall)
{
    const int nSocket = ::accept4(nListener, nullptr, nullptr, SOCK_CLOEXEC);
    check(nSocket >= 0, "accept");
    char acRequest[2048];
    check(::recv(nSocket, acRequest, sizeof(acRequest), 0) > 0, "request");
    const int nOn = 1;
    const int anKeepAlive[] = {5, 1, 2}; // seconds idle, seconds between probes, probes
    check(
        0 == ::fcntl(nSocket, F_SETFL, O_NONBLOCK) &&
            0 == ::setsockopt(nSocket, SOL_SOCKET, SO_KEEPALIVE, &nOn, sizeof(nOn)) &&
            0 == ::setsockopt(nSocket, IPPROTO_TCP, TCP_KEEPIDLE, &anKeepAlive[0], sizeof(int)) &&
            0 == ::setsockopt(nSocket, IPPROTO_TCP, TCP_KEEPINTVL, &anKeepAlive[1], sizeof(int)) &&
            0 == ::setsockopt(nSocket, IPPROTO_TCP, TCP_KEEPCNT, &anKeepAlive[2], sizeof(int)) &&
            0 == ::setsockopt(nSocket, SOL_SOCKET, SO_RCVBUF, &SOCKET_BUFFER,
                              sizeof(SOCKET_BUFFER)) &&
            0 ==
                ::setsockopt(nSocket, SOL_SOCKET, SO_SNDBUF, &SOCKET_BUFFER, sizeof(SOCKET_BUFFER)),
        "socket options");
    check(!bOneCall || (0 == ::setsockopt(nSocket, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn)) &&
                        0 == ::setsockopt(nSocket, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &MOST_UNSENT,
                                          sizeof(MOST_UNSENT))),
          "socket options");
    check(::send(nSocket, ANSWER, strlen(ANSWER), MSG_NOSIGNAL) > 0, "answer");
    return nSocket;
}

/** Send once: what is left of the current block or, in one call, of all of them. */
ssize_t sendSome(const Rest& rest, const Block* pBlock, bool bOneCall)
{
    iovec aPiece[3];
    size_t nPieces = 0;
    for (int i = rest.nBlock; i < 3; ++i) {
        const size_t nSkip = rest.nBlock == i ? rest.nSent : 0;
        aPiece[nPieces++] = {const_cast<char*>(pBlock[i].pBytes) + nSkip, pBlock[i].nBytes - nSkip};
    }
    if (!bOneCall) {
        return ::send(rest.nSocket, aPiece[0].iov_base, aPiece[0].iov_len, MSG_NOSIGNAL);
    }
    msghdr message{};
    message.msg_iov = aPiece;
    message.msg_iovlen = nPieces;
    return ::sendmsg(rest.nSocket, &message, MSG_NOSIGNAL | MSG_EOR);
}

/** @return whether the client has had everything */
bool sendOn(Rest& rest, const Block* pBlock, bool bOneCall)
{
    while (rest.nBlock < 3) {
        const ssize_t nSent = sendSome(rest, pBlock, bOneCall);
        if (nSent < 0 && (EPIPE == errno || ECONNRESET == errno)) {
            exit(0); // the load has ended
        }
        if (nSent < 0) {
            check(EAGAIN == errno, "send");
            return false;
        }
        rest.nSent += static_cast<size_t>(nSent);
        while (rest.nBlock < 3 && rest.nSent >= pBlock[rest.nBlock].nBytes) {
            rest.nSent -= pBlock[rest.nBlock].nBytes;
            ++rest.nBlock;
        }
    }
    return true;
}

void sendFrame(const std::vector<int>& vecClient, const Block& picture, bool bOneCall)
{
    static std::vector<Rest> s_vecRest; // allocated once
    timeval now{};
    gettimeofday(&now, nullptr);
    char acHeader[128];
    const int nHeader = snprintf(
        acHeader, sizeof(acHeader),
        "Content-Type: image/jpeg\r\nContent-Length: %8d\r\nX-Timestamp: %16d.%16d\r\n\r\n",
        static_cast<int>(picture.nBytes), static_cast<int>(now.tv_sec),
        static_cast<int>(now.tv_usec));
    const Block aBlock[] = {
        {acHeader, static_cast<size_t>(nHeader)}, picture, {BOUNDARY, sizeof(BOUNDARY) - 1}};
    s_vecRest.clear();
    for (const int nClient : vecClient) {
        Rest rest{nClient, 0, 0};
        if (!sendOn(rest, aBlock, bOneCall)) {
            s_vecRest.push_back(rest);
        }
    }
    while (!s_vecRest.empty()) {
        std::vector<pollfd> vecPoll;
        for (const Rest& rest : s_vecRest) {
            vecPoll.push_back({rest.nSocket, POLLOUT, 0});
        }
        check(::poll(vecPoll.data(), vecPoll.size(), 5000) > 0, "a client does not read");
        size_t uKept = 0;
        for (size_t i = 0; i < vecPoll.size(); ++i) {
            if (0 == vecPoll[i].revents || !sendOn(s_vecRest[i], aBlock, bOneCall)) {
                s_vecRest[uKept++] = s_vecRest[i];
            }
        }
        s_vecRest.resize(uKept);
    }
}

} // namespace

int main(int nCount, char** ppArgument)
{
    bool bCopies = false;
    bool bPauses = false;
    bool bOneCall = false;
    int nKnown = 0;
    for (int i = 2; i < nCount; ++i) {
        for (const auto& [pWord, pbOption] :
             {std::pair{"copies", &bCopies}, {"pauses", &bPauses}, {"one-call", &bOneCall}}) {
            if (0 == strcmp(ppArgument[i], pWord)) {
                *pbOption = true;
                ++nKnown;
            }
        }
    }
    if (nCount != 2 + nKnown) {
        fprintf(stderr, "usage: stream-floor PORT [copies] [pauses] [one-call]\n");
        return 2;
    }
    const int nListener = listenOn(static_cast<uint16_t>(atoi(ppArgument[1])));
    Camera camera;
    std::vector<int> vecClient;
    for (;;) {
        pollfd aPoll[] = {{camera.descriptor(), POLLIN, 0}, {nListener, POLLIN, 0}};
        check(::poll(aPoll, 2, -1) > 0, "poll");
        if (0 != aPoll[0].revents) {
            const Block picture = bCopies ? camera.copy() : camera.take();
            sendFrame(vecClient, picture, bOneCall);
            if (bCopies) {
                free(const_cast<char*>(picture.pBytes));
            }
            if (bPauses) {
                timeval pause = {0, 10000};
                (void)::select(0, nullptr, nullptr, nullptr, &pause);
            }
        }
        if (0 != aPoll[1].revents) {
            vecClient.push_back(acceptClient(nListener, bOneCall));
        }
    }
}
