// One captured picture: a packed header and the bytes as the camera delivered them.
#pragma once

#include <cstdint>

#include "SafePointer.h"

/**
 * The block is malloc'ed at exactly the header's 24 bytes plus u32Size and byte-packed,
 * little-endian as the board: fields may be unaligned, so never point at one.
 */
struct __attribute__((packed)) VENC_FRAME_T
{
    uint32_t u32Size;      // payload bytes
    uint64_t u64TimeStamp; // wall clock at dequeue, microseconds since 1970
    uint32_t u32Format;    // FRAME_FORMAT_...
    uint32_t u32Width;     // pixels
    uint32_t u32Height;    // pixels
    uint8_t au8Data[1];    // payload; reaches beyond the record
};

enum : uint32_t
{
    FRAME_HEADER_SIZE = 24,  // bytes before au8Data; the holder's data offset
    FRAME_FORMAT_MJPEG = 28, // a whole JPEG picture, the only format that the camera delivers
};

/** Shared by everyone who needs the frame; the last holder frees it. */
typedef SafePointer_C<VENC_FRAME_T> PVENC_FRAME_T;

/**
 * A frame of its own with this header and a copy of the payload, its holder's data offset set.
 * @param header    every field in front of au8Data, which is not looked at
 * @param pPayload  header.u32Size bytes, not null
 * @return a holder without a frame when there is no memory
 */
PVENC_FRAME_T makeFrame(const VENC_FRAME_T& header, const void* pPayload);
