// One frame to 1, 8 and 64 clients of the stream, beside the same blocks by bare sendmsg.
#include <memory>
#include <vector>

#include <sys/socket.h>
#include <sys/uio.h>

#include <benchmark/benchmark.h>

#include "CpuClock.h"
#include "HttpLiveClient.h"
#include "Log.h"
#include "TcpPair.h"
#include "VideoFrame.h"
#include "VideoStreamProducer.h"
#include "WebCameraClient.h"

namespace {

const uint32_t PICTURE = 40000; // bytes

// The bytes around a frame, as the stream has them.
const char HEAD[] =
    "Content-Type: image/jpeg\r\nContent-Length:    40000\r\nX-Timestamp:       1700000000.          123456\r\n\r\n";
const char BOUNDARY[] = "\r\n--boundarydonotcross\r\n";
const size_t PART = sizeof(HEAD) - 1 + PICTURE + sizeof(BOUNDARY) - 1;

PVENC_FRAME_T makePicture()
{
    VENC_FRAME_T header{};
    header.u32Size = PICTURE;
    header.u32Format = FRAME_FORMAT_MJPEG;
    return makeFrame(header, std::vector<char>(PICTURE).data());
}

/** The capture side's list of consumers, without a camera. */
class Deliverer : public VideoStreamProducer
{
public:
    using VideoStreamProducer::deliver;
};

/** A client of the stream as the service makes it, but for the request. */
class Viewer
{
public:
    explicit Viewer(Deliverer& deliverer) : m_deliverer(deliverer), m_live(m_client, 0)
    {
        m_client.setSocket(TcpSocket(m_pair.near()));
        (void)m_live.start(); // without a camera it finds no stream to register with
        m_pair.drainAll();
        m_consumer.setCallback(
            std::make_unique<CB<HttpLiveClient, int>>(&m_live, &HttpLiveClient::onLiveFrameEvent));
        (void)m_deliverer.registerConsumer(&m_consumer);
    }
    Viewer(const Viewer&) = delete;
    Viewer& operator=(const Viewer&) = delete;
    ~Viewer()
    {
        (void)m_deliverer.cancelConsumer(&m_consumer);
    }

    /** @return false when the socket has not taken the whole part */
    bool finish()
    {
        if (0 != m_client.getQueueLength()) {
            return false;
        }
        m_pair.drain(PART);
        return true;
    }

private:
    Deliverer& m_deliverer;
    TcpPair m_pair;
    WebCameraClient m_client;
    HttpLiveClient m_live;
    VideoConsumer m_consumer;
};

void fanOut(benchmark::State& state)
{
    Log::getInstance().setLevel(5).setSinks(0); // as in service
    Deliverer deliverer;
    std::vector<std::unique_ptr<Viewer>> vecViewer;
    for (int64_t i = 0; i < state.range(0); ++i) {
        vecViewer.push_back(std::make_unique<Viewer>(deliverer));
    }
    for (auto _ : state) {
        PVENC_FRAME_T frame = makePicture();
        const double dStart = threadCpuSeconds();
        deliverer.deliver(frame);
        state.SetIterationTime(threadCpuSeconds() - dStart);
        for (const auto& pViewer : vecViewer) {
            if (!pViewer->finish()) {
                state.SkipWithError("a socket is full");
                return;
            }
        }
    }
}

void bareFanOut(benchmark::State& state)
{
    std::vector<std::unique_ptr<TcpPair>> vecPair;
    for (int64_t i = 0; i < state.range(0); ++i) {
        vecPair.push_back(std::make_unique<TcpPair>());
    }
    for (auto _ : state) {
        const PVENC_FRAME_T frame = makePicture();
        const double dStart = threadCpuSeconds();
        bool bTaken = true;
        for (const auto& pPair : vecPair) {
            iovec aPiece[] = {{const_cast<char*>(HEAD), sizeof(HEAD) - 1},
                              {frame.get()->au8Data, PICTURE},
                              {const_cast<char*>(BOUNDARY), sizeof(BOUNDARY) - 1}};
            msghdr message{};
            message.msg_iov = aPiece;
            message.msg_iovlen = 3;
            const ssize_t nSent = sendmsg(pPair->near(), &message, MSG_NOSIGNAL);
            bTaken = bTaken && static_cast<ssize_t>(PART) == nSent;
        }
        state.SetIterationTime(threadCpuSeconds() - dStart);
        if (!bTaken) {
            state.SkipWithError("a socket is full");
            return;
        }
        for (const auto& pPair : vecPair) {
            pPair->drain(PART);
        }
    }
}

} // namespace

BENCHMARK(bareFanOut)->Arg(1)->Arg(8)->Arg(64)->UseManualTime();
BENCHMARK(fanOut)->Arg(1)->Arg(8)->Arg(64)->UseManualTime();
