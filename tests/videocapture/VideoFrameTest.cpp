// The frame record's layout, at any address.
#include "VideoFrame.h"

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Fault.h"

TEST(VideoFrame, RecordHasNoPadding)
{
    EXPECT_EQ(0U, offsetof(VENC_FRAME_T, u32Size));
    EXPECT_EQ(4U, offsetof(VENC_FRAME_T, u64TimeStamp));
    EXPECT_EQ(12U, offsetof(VENC_FRAME_T, u32Format));
    EXPECT_EQ(16U, offsetof(VENC_FRAME_T, u32Width));
    EXPECT_EQ(20U, offsetof(VENC_FRAME_T, u32Height));
    EXPECT_EQ(24U, offsetof(VENC_FRAME_T, au8Data));
    EXPECT_EQ(24U, static_cast<size_t>(FRAME_HEADER_SIZE));
    EXPECT_EQ(1U, alignof(VENC_FRAME_T));
}

TEST(VideoFrame, FieldsAreLittleEndianAtAnOddAddress)
{
    alignas(8) unsigned char aucMemory[1 + 24 + 3] = {};
    auto* pFrame = reinterpret_cast<VENC_FRAME_T*>(aucMemory + 1);

    pFrame->u32Size = 3;
    pFrame->u64TimeStamp = 0x0102030405060708ULL;
    pFrame->u32Format = 28;
    pFrame->u32Width = 640;
    pFrame->u32Height = 480;
    memcpy(pFrame->au8Data, "abc", 3);

    const std::vector<unsigned char> vecExpected{0,                // in front of the record
                                                 3,    0,   0,  0, // size
                                                 8,    7,   6,  5, 4, 3, 2, 1, // time stamp
                                                 28,   0,   0,  0,             // format
                                                 0x80, 2,   0,  0,             // width
                                                 0xE0, 1,   0,  0,             // height
                                                 'a',  'b', 'c'};
    EXPECT_EQ(vecExpected, std::vector<unsigned char>(aucMemory, aucMemory + sizeof(aucMemory)));
    EXPECT_EQ(0x0102030405060708ULL, +pFrame->u64TimeStamp); // +: a copy, not a reference
    EXPECT_EQ(480U, +pFrame->u32Height);
}

TEST(VideoFrame, MadeFrameHasTheHeaderThePayloadAndTheOffset)
{
    VENC_FRAME_T header{};
    header.u32Size = 3;
    header.u64TimeStamp = 0x0102030405060708ULL;
    header.u32Format = 28;
    header.u32Width = 640;
    header.u32Height = 480;
    char acPayload[] = "abc";

    const PVENC_FRAME_T frame = makeFrame(header, acPayload);
    acPayload[0] = 'x'; // copied, not shared

    ASSERT_NE(nullptr, frame.get());
    EXPECT_EQ(24U, frame.getDataOffset());
    EXPECT_EQ(std::string("\3\0\0\0\10\7\6\5\4\3\2\1\34\0\0\0\200\2\0\0\340\1\0\0abc", 27),
              std::string(reinterpret_cast<const char*>(frame.get()), 27));
}

TEST(VideoFrame, BlockIsAsLargeAsHeaderAndPayload)
{
    VENC_FRAME_T header{};
    header.u32Size = 5000;
    const std::string strPayload(5000, 'x');
    const FaultScope fault("malloc=5024:1:ENOMEM");

    const PVENC_FRAME_T frame = makeFrame(header, strPayload.data());

    EXPECT_EQ(1U, faultHits());
    EXPECT_EQ(nullptr, frame.get());
}

TEST(VideoFrame, WithoutMemoryForItsHolderThereIsNoFrame)
{
    VENC_FRAME_T header{};
    header.u32Size = 3;
    testing::internal::CaptureStdout();
    {
        const FaultScope fault("malloc:2:ENOMEM");
        EXPECT_EQ(nullptr, makeFrame(header, "abc").get());
        EXPECT_EQ(1U, faultHits());
    }

    (void)testing::internal::GetCapturedStdout();
}
