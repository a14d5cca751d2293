// Fuzzes a connection's request processor: any bytes, in chunks of any size, frames in between.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>
#include <sys/socket.h>
#include <unistd.h>

#include "FakeSystem.h"
#include "Log.h"
#include "WebCameraClient.h"

namespace {

void require(bool bHolds, const char* pWhat)
{
    if (!bHolds) {
        fprintf(stderr, "not true: %s\n", pWhat);
        abort();
    }
}

/** Takes the place of the peer: reads whatever was sent. */
void drain(int nFd)
{
    char acBuffer[4096];
    while (recv(nFd, acBuffer, sizeof(acBuffer), MSG_DONTWAIT) > 0) {
    }
}

class DirectWrite : public ICommucation
{
public:
    int write(const void* pData, int nLength) override
    {
        require(nLength == static_cast<int>(strlen(static_cast<const char*>(pData))),
                "an answer ends with its terminator");
        return 0;
    }
};

} // namespace

extern "C" const char* __asan_default_options() // NOLINT(bugprone-reserved-identifier): its name
{
    // A large Content-Length meets a board without that much memory.
    return "max_allocation_size_mb=64:allocator_may_return_null=1:quarantine_size_mb=16";
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // Snapshots are saved under names that the fuzzer makes up.
    if (0 == access("/tmp/run/mountd", F_OK)) {
        fprintf(stderr, "there is an SD card; run this in tests/support/private-host\n");
        exit(1);
    }
    Log::getInstance().setSinks(0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize)
{
    FuzzedDataProvider input(pData, uSize); // texts from the front, numbers from the back
    int anFd[2];
    require(0 == socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, anFd), "a socket pair");
    {
        WebCameraClient client; // what the responders send through
        client.setSocket(TcpSocket(anFd[0]));
        DirectWrite write;
        WebCameraHttpDataProcessor processor(write, client);
        PVENC_FRAME_T frame = makeFrame(200, input.ConsumeBool() ? 28 : 10);
        // Each read may add a responder and a frame goes to all of them: few of both keep a run
        // short.
        int nFrames = input.ConsumeIntegralInRange(0, 4);
        int nReads = input.ConsumeIntegralInRange(1, 16);
        int nResult = 0;
        while (0 == nResult && nReads-- > 0 && input.remaining_bytes() > 0) {
            const size_t uMost = input.ConsumeIntegralInRange<size_t>(1, 2048);
            const std::string strText = input.ConsumeBytesAsString(uMost);
            if (strText.empty()) {
                break;
            }
            // Exactly the chunk, without a terminator: a byte read too many is seen.
            const std::unique_ptr<char[]> pChunk(new char[strText.size()]);
            memcpy(pChunk.get(), strText.data(), strText.size());
            nResult = processor.parse(pChunk.get(), static_cast<int>(strText.size()));
            require(0 == nResult || 1 == nResult, "0 or 1");
            require(0 != nResult || !processor.getPath().empty(), "a path");
            for (const auto& param : processor.getParams()) {
                require(!param.first.empty() && !param.second.empty(), "whole pairs");
            }
            if (nFrames > 0 && input.ConsumeBool()) {
                nFrames -= 1;
                FakeSystem::deliver(frame);
            }
            drain(anFd[1]);
        }
        processor.stopResponders();
        require(0 == FakeSystem::consumerCount(), "no consumer is left");
        FakeSystem::deliver(frame);
    }
    close(anFd[0]);
    close(anFd[1]);
    return 0;
}
