// The send queue: what handing a block over costs, to an idle and to a busy connection.
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>

#include <sys/socket.h>

#include <benchmark/benchmark.h>

#include "CpuClock.h"
#include "SendQueueTcpClient.h"
#include "TcpPair.h"

namespace {

const int BLOCK = 64;  // bytes, a boundary's order
const int ROUND = 256; // blocks between two looks at the clock

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

/** A connection whose socket is full: it takes nothing, until the bench takes the block itself. */
class BusyClient : public SendQueueTcpClient
{
public:
    void takeOne()
    {
        const void* pData = nullptr;
        int nLength = 0;
        (void)SendQueueTcpClient::getNextBuffer(pData, nLength);
        benchmark::DoNotOptimize(pData);
    }
};

/** Hands over to a full connection, and takes out again: the queue alone. */
void handOverBusy(benchmark::State& state)
{
    const TcpPair pair;
    BusyClient client;
    client.setSocket(TcpSocket(pair.near()));
    const SafePointer_C<char> large(static_cast<char*>(calloc(1, 16 << 20)));
    client.send(large, 16 << 20); // more than both sockets' buffers hold
    const SafePointer_C<char> block = makeBlock();
    for (auto _ : state) {
        client.send(block, BLOCK);
        client.takeOne();
    }
    if (0 != client.getQueueLength()) {
        state.SkipWithError("the queue has grown");
    }
}

/** A queue of shared blocks and a plain mutex, nothing else. */
void queueAlone(benchmark::State& state)
{
    std::mutex mtx;
    std::deque<std::pair<std::shared_ptr<char>, int>> queue;
    const std::shared_ptr<char> pBlock(static_cast<char*>(calloc(1, BLOCK)), free);
    for (auto _ : state) {
        {
            const std::lock_guard<std::mutex> guard(mtx);
            queue.emplace_back(pBlock, BLOCK);
        }
        const std::lock_guard<std::mutex> guard(mtx);
        benchmark::DoNotOptimize(queue.front().first.get());
        queue.pop_front();
    }
}

} // namespace

BENCHMARK(queueAlone);
BENCHMARK(bareSend)->UseManualTime();
BENCHMARK(handOverIdle)->UseManualTime();
BENCHMARK(handOverBusy);
