// Turns the camera's ioctl arguments into records of fixed layout and back.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>

#include "Session.h"

static int plainCall(struct OpenCamera* pSession, enum CAMERA_CALL_E eCall, uint32_t u32Request,
                     void* pArgument, size_t uSize)
{
    uint8_t au8Record[sizeof(((struct CameraPage*)0)->record)] = {0};
    if (_IOC_DIR(u32Request) & _IOC_WRITE) {
        memcpy(au8Record, pArgument, uSize);
    }
    const int nError = cameraCall(pSession, eCall, au8Record, uSize, false, NULL);
    if (0 == nError && (_IOC_DIR(u32Request) & _IOC_READ)) {
        memcpy(pArgument, au8Record, uSize);
    }
    return nError;
}

static int formatCall(struct OpenCamera* pSession, enum CAMERA_CALL_E eCall, void* pArgument)
{
    struct v4l2_format* pFormat = pArgument;
    struct CameraFormat record = {.u32Type = pFormat->type, .pix = pFormat->fmt.pix};
    const int nError = cameraCall(pSession, eCall, &record, sizeof(record), false, NULL);
    if (0 == nError) {
        pFormat->fmt.pix = record.pix;
    }
    return nError;
}

static void bufferBack(struct v4l2_buffer* pBuffer, const struct CameraBuffer* pRecord)
{
    pBuffer->index = pRecord->u32Index;
    pBuffer->bytesused = pRecord->u32BytesUsed;
    pBuffer->flags = pRecord->u32Flags;
    pBuffer->field = pRecord->u32Field;
    memset(&pBuffer->timestamp, 0, sizeof(pBuffer->timestamp));
    pBuffer->timestamp.tv_sec = (int32_t)pRecord->u32Seconds;
    pBuffer->timestamp.tv_usec = (int32_t)pRecord->u32Microseconds;
    memset(&pBuffer->timecode, 0, sizeof(pBuffer->timecode));
    pBuffer->sequence = pRecord->u32Sequence;
    pBuffer->memory = pRecord->u32Memory;
    pBuffer->m.offset = pRecord->u32Offset;
    pBuffer->length = pRecord->u32Length;
}

static int bufferCall(struct OpenCamera* pSession, enum CAMERA_CALL_E eCall, void* pArgument,
                      bool* pWait)
{
    struct v4l2_buffer* pBuffer = pArgument;
    struct CameraBuffer record = {
        .u32Index = pBuffer->index,
        .u32Type = pBuffer->type,
        .u32BytesUsed = pBuffer->bytesused,
        .u32Flags = pBuffer->flags,
        .u32Field = pBuffer->field,
        .u32Seconds = (uint32_t)pBuffer->timestamp.tv_sec,
        .u32Microseconds = (uint32_t)pBuffer->timestamp.tv_usec,
        .u32Sequence = pBuffer->sequence,
        .u32Memory = pBuffer->memory,
        .u32Offset = pBuffer->m.offset,
        .u32Length = pBuffer->length,
    };
    const int nError = cameraCall(pSession, eCall, &record, sizeof(record), false, pWait);
    if (0 == nError && !*pWait) {
        bufferBack(pBuffer, &record);
    }
    return nError;
}

// A blocking dequeue waits on the descriptor between its questions, with no lock held.
static int dequeueCall(struct OpenCamera* pSession, int nFd, void* pArgument)
{
    for (;;) {
        bool bWait = false;
        const int nError = bufferCall(pSession, CAMERA_DQBUF, pArgument, &bWait);
        if (!bWait) {
            return nError;
        }
        struct pollfd wait = {.fd = nFd, .events = POLLIN};
        if (poll(&wait, 1, -1) < 0) {
            return errno;
        }
    }
}

static int controlsCall(struct OpenCamera* pSession, enum CAMERA_CALL_E eCall, void* pArgument)
{
    struct v4l2_ext_controls* pControls = pArgument;
    struct CameraControls record = {
        .u32Which = pControls->which,
        .u32Count = pControls->count,
        .u32ErrorIndex = pControls->error_idx,
    };
    if (pControls->count > CAMERA_MAX_CONTROLS) {
        return EINVAL;
    }
    for (uint32_t i = 0; i < pControls->count; ++i) {
        record.control[i].u32Id = pControls->controls[i].id;
        record.control[i].s32Value = pControls->controls[i].value;
    }
    // The index of the control at fault comes back with a failure too.
    const int nError = cameraCall(pSession, eCall, &record, sizeof(record), true, NULL);
    pControls->error_idx = record.u32ErrorIndex;
    if (0 == nError) {
        for (uint32_t i = 0; i < pControls->count; ++i) {
            pControls->controls[i].value = record.control[i].s32Value;
        }
    }
    return nError;
}

static int otherCall(struct OpenCamera* pSession, enum CAMERA_CALL_E eCall, uint32_t u32Value)
{
    return cameraCall(pSession, eCall, &u32Value, sizeof(u32Value), false, NULL);
}

int cameraIoctl(struct OpenCamera* pSession, int nFd, uint32_t u32Request, void* pArgument)
{
    bool bWait = false;
    if ('V' == _IOC_TYPE(u32Request) && NULL == pArgument) {
        return EFAULT;
    }
    switch (u32Request) {
#define CAMERA_CASE(name, type, field)                                                             \
    case VIDIOC_##name:                                                                            \
        return plainCall(pSession, CAMERA_##name, u32Request, pArgument, sizeof(type));
        CAMERA_PLAIN_CALLS(CAMERA_CASE)
#undef CAMERA_CASE
    case VIDIOC_G_FMT:
        return formatCall(pSession, CAMERA_G_FMT, pArgument);
    case VIDIOC_S_FMT:
        return formatCall(pSession, CAMERA_S_FMT, pArgument);
    case VIDIOC_TRY_FMT:
        return formatCall(pSession, CAMERA_TRY_FMT, pArgument);
    case VIDIOC_QUERYBUF:
        return bufferCall(pSession, CAMERA_QUERYBUF, pArgument, &bWait);
    case VIDIOC_QBUF:
        return bufferCall(pSession, CAMERA_QBUF, pArgument, &bWait);
    case VIDIOC_DQBUF:
        return dequeueCall(pSession, nFd, pArgument);
    case VIDIOC_G_EXT_CTRLS:
        return controlsCall(pSession, CAMERA_G_EXT_CTRLS, pArgument);
    case VIDIOC_S_EXT_CTRLS:
        return controlsCall(pSession, CAMERA_S_EXT_CTRLS, pArgument);
    case VIDIOC_TRY_EXT_CTRLS:
        return controlsCall(pSession, CAMERA_TRY_EXT_CTRLS, pArgument);
    case VIDIOC_DQEVENT:
        return otherCall(pSession, CAMERA_DQEVENT, 0);
    default:
        return otherCall(pSession, CAMERA_ioctl, u32Request);
    }
}
