// The send queue: what handing blocks over costs, to an idle and to a busy connection.
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>

#include <sys/socket.h>
#include <sys/uio.h>

#include <benchmark/benchmark.h>

#include "CpuClock.h"
#include "DeviceIo.h"
#include "SendQueueTcpClient.h"
#include "TcpPair.h"

namespace {

const int BLOCK = 64;       // bytes, a boundary's order
const int ROUND = 256;      // blocks between two looks at the clock
const int LARGE = 16 << 20; // bytes, more than both sockets' buffers hold

SafePointer_C<char> makeBlock()
{
    return SafePointer_C<char>(static_cast<char*>(calloc(1, BLOCK)));
}

/** Hands over, the socket takes it at once. */
void handOverIdle(benchmark::State& state)
{
    const TcpPair pair;
    SendQueueTcpClient client;
    client.setSocket(TcpSocket(pair.near()));
    const SafePointer_C<char> block = makeBlock();
    for (auto _ : state) {
        const double dStart = threadCpuSeconds();
        for (int i = 0; i < ROUND; ++i) {
            client.send(block, BLOCK);
        }
        state.SetIterationTime(threadCpuSeconds() - dStart);
        if (0 != client.getQueueLength()) {
            state.SkipWithError("the socket is full");
            break;
        }
        pair.drain(static_cast<size_t>(ROUND) * BLOCK);
    }
    state.counters["parts"] = ROUND;
}

void bareSend(benchmark::State& state)
{
    const TcpPair pair;
    const SafePointer_C<char> block = makeBlock();
    for (auto _ : state) {
        const double dStart = threadCpuSeconds();
        for (int i = 0; i < ROUND; ++i) {
            if (BLOCK != send(pair.near(), block.get(), BLOCK, MSG_NOSIGNAL)) {
                state.SkipWithError("the socket is full");
            }
        }
        state.SetIterationTime(threadCpuSeconds() - dStart);
        pair.drain(static_cast<size_t>(ROUND) * BLOCK);
    }
    state.counters["parts"] = ROUND;
}

/** Hands over three at a time, a part's number: they leave in one call. */
void handOverParts(benchmark::State& state)
{
    const TcpPair pair;
    SendQueueTcpClient client;
    client.setSocket(TcpSocket(pair.near()));
    const SafePointer_C<char> block = makeBlock();
    for (auto _ : state) {
        const double dStart = threadCpuSeconds();
        for (int i = 0; i < ROUND; ++i) {
            SendQueueTcpClient::Item aItem[3];
            for (SendQueueTcpClient::Item& item : aItem) {
                item.data = block;
                item.nLength = BLOCK;
            }
            benchmark::DoNotOptimize(client.sendTogether(aItem, 3));
        }
        state.SetIterationTime(threadCpuSeconds() - dStart);
        if (0 != client.getQueueLength()) {
            state.SkipWithError("the socket is full");
            break;
        }
        pair.drain(static_cast<size_t>(ROUND) * 3 * BLOCK);
    }
    state.counters["parts"] = ROUND;
}

void bareSendmsg(benchmark::State& state)
{
    const TcpPair pair;
    const SafePointer_C<char> block = makeBlock();
    for (auto _ : state) {
        const double dStart = threadCpuSeconds();
        for (int i = 0; i < ROUND; ++i) {
            iovec aPiece[3];
            for (iovec& piece : aPiece) {
                piece = {block.get(), BLOCK};
            }
            msghdr message{};
            message.msg_iov = aPiece;
            message.msg_iovlen = 3;
            if (3 * BLOCK != sendmsg(pair.near(), &message, MSG_NOSIGNAL)) {
                state.SkipWithError("the socket is full");
            }
        }
        state.SetIterationTime(threadCpuSeconds() - dStart);
        pair.drain(static_cast<size_t>(ROUND) * 3 * BLOCK);
    }
    state.counters["parts"] = ROUND;
}

/** Hands over to a connection whose socket is full: the queue alone. */
void handOverBusy(benchmark::State& state)
{
    const TcpPair pair;
    const SafePointer_C<char> large(static_cast<char*>(calloc(1, LARGE)));
    const SafePointer_C<char> block = makeBlock();
    SendQueueTcpClient filler;
    filler.setSocket(TcpSocket(pair.near()));
    filler.send(large, LARGE);
    // What the far end still takes in; a little fits before the socket says that it is writable.
    while (::send(pair.near(), large.get(), 1, MSG_DONTWAIT | MSG_NOSIGNAL) > 0 ||
           waitWritable(pair.near(), 0, 300000)) {
    }
    for (auto _ : state) {
        SendQueueTcpClient client;
        client.setSocket(TcpSocket(pair.near()));
        client.send(block, BLOCK); // being sent from now on
        const double dStart = threadCpuSeconds();
        for (int i = 0; i < ROUND; ++i) {
            client.send(block, BLOCK);
        }
        state.SetIterationTime(threadCpuSeconds() - dStart);
        if (ROUND != client.getQueueLength()) {
            state.SkipWithError("the socket is not full");
            break;
        }
    }
    state.counters["parts"] = ROUND;
}

/** A queue of shared blocks and a plain mutex, nothing else. */
void queueAlone(benchmark::State& state)
{
    std::mutex mtx;
    const std::shared_ptr<char> pBlock(static_cast<char*>(calloc(1, BLOCK)), free);
    for (auto _ : state) {
        std::deque<std::pair<std::shared_ptr<char>, int>> queue;
        const double dStart = threadCpuSeconds();
        for (int i = 0; i < ROUND; ++i) {
            const std::lock_guard<std::mutex> guard(mtx);
            queue.emplace_back(pBlock, BLOCK);
        }
        state.SetIterationTime(threadCpuSeconds() - dStart);
        benchmark::DoNotOptimize(queue.back().first.get());
    }
    state.counters["parts"] = ROUND;
}

} // namespace

BENCHMARK(queueAlone)->UseManualTime();
BENCHMARK(bareSend)->UseManualTime();
BENCHMARK(bareSendmsg)->UseManualTime();
BENCHMARK(handOverIdle)->UseManualTime();
BENCHMARK(handOverParts)->UseManualTime();
BENCHMARK(handOverBusy)->UseManualTime();
