// Making a frame record: the block, its header, its payload and its holder.
#include "VideoFrame.h"

#include <cstdlib>
#include <cstring>

PVENC_FRAME_T makeFrame(const VENC_FRAME_T& header, const void* pPayload)
{
    const size_t uSize = header.u32Size;
    auto* pFrame = static_cast<VENC_FRAME_T*>(malloc(FRAME_HEADER_SIZE + uSize));
    if (nullptr == pFrame) {
        return {};
    }
    memcpy(pFrame, &header, FRAME_HEADER_SIZE);
    memcpy(pFrame->au8Data, pPayload, uSize);
    PVENC_FRAME_T frame(pFrame);
    frame.setDataOffset(FRAME_HEADER_SIZE);
    return frame;
}
