// Shared buffers: who frees them, what empty handles do, and the offset that all handles see.
#include "SafePointer.h"

#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "CallJournal.h"
#include "Fault.h"

namespace {

const char* const NULL_LINE = "err: NULL pointer(safe pointer) !\n";

char* newText(const char* pText)
{
    return strdup(pText);
}

} // namespace

TEST(SafePointer, HandlesShareTheBuffer)
{
    char* pText = newText("frame");
    SafePointer_C<char> first(pText);
    SafePointer_C<char> second(first);
    SafePointer_C<char> third;
    third = second;

    EXPECT_EQ(pText, first.get());
    EXPECT_EQ(pText, second.get());
    EXPECT_EQ(pText, third.get());
}

// Freed twice is the allocator's to find; what is never freed piles up.
TEST(SafePointer, BufferAndBlockAreFreedOnce)
{
    const size_t uBefore = allocatedBytes();

    for (int i = 0; i < 1000; ++i) {
        SafePointer_C<char> first(static_cast<char*>(malloc(1000)));
        const SafePointer_C<char> second(first);
        const SafePointer_C<char> third(std::move(first));
    }

    EXPECT_GT(uBefore + 10000, allocatedBytes()); // a block alone has more than ten bytes
}

TEST(SafePointer, AssignmentByMoveFreesWhatTheHandleHeld)
{
    SafePointer_C<char> handle;
    const size_t uBefore = allocatedBytes();

    for (int i = 0; i < 1000; ++i) {
        handle = SafePointer_C<char>(static_cast<char*>(malloc(1000)));
    }

    EXPECT_GT(uBefore + 10000, allocatedBytes());
}

TEST(SafePointer, AssignmentOfACopyFreesWhatTheHandleHeld)
{
    SafePointer_C<char> handle;
    const size_t uBefore = allocatedBytes();

    for (int i = 0; i < 1000; ++i) {
        const SafePointer_C<char> other(static_cast<char*>(malloc(1000)));
        handle = other;
    }

    EXPECT_GT(uBefore + 10000, allocatedBytes());
}

TEST(SafePointer, LastHandleFreesTheBuffer)
{
    SafePointer_C<char> last;
    {
        SafePointer_C<char> first(newText("frame"));
        SafePointer_C<char> second(first);
        last = second;
        first = SafePointer_C<char>(newText("other"));
    }

    EXPECT_STREQ("frame", last.get());
}

TEST(SafePointer, HandlesMoveAndAssignToThemselves)
{
    SafePointer_C<char> first(newText("frame"));
    SafePointer_C<char>& alias = first;
    first = alias;
    EXPECT_STREQ("frame", first.get());

    SafePointer_C<char> second(std::move(first));
    EXPECT_STREQ("frame", second.get());

    SafePointer_C<char> third(newText("other"));
    third = std::move(second);
    EXPECT_STREQ("frame", third.get());
}

TEST(SafePointer, NullPointerIsReportedAndHoldsNothing)
{
    testing::internal::CaptureStdout();
    SafePointer_C<char> handle(nullptr);
    EXPECT_EQ(NULL_LINE, testing::internal::GetCapturedStdout());

    EXPECT_EQ(nullptr, handle.get());
}

TEST(SafePointer, CopyOfAHandleMadeFromNullIsReportedToo)
{
    testing::internal::CaptureStdout();
    const SafePointer_C<char> handle(nullptr);
    const SafePointer_C<char> copy(handle);
    SafePointer_C<char> assigned;
    assigned = copy;
    EXPECT_EQ(std::string(NULL_LINE) + NULL_LINE + NULL_LINE,
              testing::internal::GetCapturedStdout());

    EXPECT_EQ(nullptr, copy.get());
    EXPECT_EQ(nullptr, assigned.get());
}

TEST(SafePointer, AssignedHandleIsMadeFromNullAsWhatItIsAssigned)
{
    testing::internal::CaptureStdout();
    SafePointer_C<char> moved;
    moved = SafePointer_C<char>(nullptr);
    SafePointer_C<char> assigned;
    assigned = moved;
    (void)testing::internal::GetCapturedStdout();

    testing::internal::CaptureStdout();
    const SafePointer_C<char> first(moved);
    const SafePointer_C<char> second(assigned);
    EXPECT_EQ(std::string(NULL_LINE) + NULL_LINE, testing::internal::GetCapturedStdout());
}

TEST(SafePointer, HandleMadeFromNullIsAsAnyOtherOnceItIsAssignedABuffer)
{
    testing::internal::CaptureStdout();
    SafePointer_C<char> handle(nullptr);
    (void)testing::internal::GetCapturedStdout();
    const SafePointer_C<char> frame(newText("frame"));

    testing::internal::CaptureStdout();
    handle = frame;
    const SafePointer_C<char> copy(handle);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());

    EXPECT_STREQ("frame", copy.get());
}

TEST(SafePointer, HandleMadeEmptyIsSilent)
{
    testing::internal::CaptureStdout();
    const SafePointer_C<char> handle;
    const SafePointer_C<char> copy(handle);
    SafePointer_C<char> assigned(newText("frame"));
    assigned = copy;
    EXPECT_EQ("", testing::internal::GetCapturedStdout());

    EXPECT_EQ(nullptr, copy.get());
    EXPECT_EQ(nullptr, assigned.get());
}

TEST(SafePointer, ControlBlockThatCannotBeAllocatedLeavesItEmpty)
{
    const size_t uBefore = allocatedBytes();
    char* pBuffer = static_cast<char*>(malloc(100000));
    const std::string strPlan = "malloc=" + std::to_string(sizeof(SafePointerBlock)) + ":1:ENOMEM";
    testing::internal::CaptureStdout();
    {
        FaultScope fault(strPlan.c_str());
        const SafePointer_C<char> handle(pBuffer);
        EXPECT_EQ(1u, faultHits());
        EXPECT_EQ(nullptr, handle.get());
    }
    EXPECT_EQ(NULL_LINE, testing::internal::GetCapturedStdout());
    EXPECT_GT(uBefore + 50000, allocatedBytes()); // the buffer is freed all the same
}

TEST(SafePointer, DataOffsetBelongsToTheBuffer)
{
    SafePointer_C<char> first(newText("header and data"));
    const SafePointer_C<char> second(first);
    EXPECT_EQ(0u, first.getDataOffset());

    first.setDataOffset(24);

    EXPECT_EQ(24u, second.getDataOffset());
    EXPECT_EQ(0u, SafePointer_C<char>().getDataOffset());
}

TEST(SafePointer, HandleOfAnotherTypeSharesBufferAndOffset)
{
    struct Frame
    {
        uint32_t u32Size;
    };
    SafePointer_C<char> bytes;
    void* pFrame = nullptr;
    {
        SafePointer_C<Frame> frame(static_cast<Frame*>(malloc(sizeof(Frame))));
        frame.get()->u32Size = 0x41414141;
        frame.setDataOffset(2);
        pFrame = frame.get();
        bytes = frame.castTo<char>();
    }

    EXPECT_EQ(pFrame, bytes.get());
    EXPECT_EQ(2u, bytes.getDataOffset());
    EXPECT_EQ('A', *bytes.get());
}

TEST(SafePointer, HandlesComeAndGoOnSeveralThreads)
{
    const SafePointer_C<char> origin(newText("frame"));
    std::vector<std::thread> vecThread;
    for (int i = 0; i < 4; ++i) {
        vecThread.emplace_back([handle = origin] {
            for (int nRound = 0; nRound < 1000; ++nRound) {
                const SafePointer_C<char> copy(handle);
                EXPECT_STREQ("frame", copy.get());
            }
        });
    }
    for (std::thread& thread : vecThread) {
        thread.join();
    }

    EXPECT_STREQ("frame", origin.get());
}

TEST(SafePointer, CountIsChangedUnderTheLock)
{
    const SafePointer_C<char> first(static_cast<char*>(malloc(1)));
    const CallJournal journal("pthread_mutex_lock");
    {
        const SafePointer_C<char> second(first);
        EXPECT_EQ(1U, CallJournal::lines().size());
    }

    EXPECT_EQ(2U, CallJournal::lines().size());
}
