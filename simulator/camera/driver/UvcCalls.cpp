// The virtual camera's driver: the device calls one by one.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "UvcCamera.h"

int UvcCamera::dispatch(ICameraHandle& handle, CAMERA_CALL_E eCall, CameraRecord& record,
                        bool bBlocking, bool& bWait)
{
    const int nBlocked = blockedByPriority(handle, eCall);
    if (0 != nBlocked) {
        return nBlocked;
    }
    switch (eCall) {
    case CAMERA_QUERYCAP: {
        v4l2_capability& cap = record.cap_QUERYCAP;
        cap = {};
        const auto put = [](__u8* pField, size_t uSize, const char* pText) {
            snprintf(reinterpret_cast<char*>(pField), uSize, "%s", pText);
        };
        put(cap.driver, sizeof(cap.driver), "uvcvideo");
        put(cap.card, sizeof(cap.card), "USB 2.0 Camera: USB Camera");
        put(cap.bus_info, sizeof(cap.bus_info), "usb-101c0000.ehci-1.1");
        cap.version = 6 << 16 | 1 << 8; // KERNEL_VERSION(6, 1, 0)
        cap.device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_EXT_PIX_FORMAT | V4L2_CAP_STREAMING;
        cap.capabilities = cap.device_caps | V4L2_CAP_DEVICE_CAPS | V4L2_CAP_META_CAPTURE;
        cap.capabilities = m_faults.m_capabilities.value_or(cap.capabilities);
        return 0;
    }
    case CAMERA_ENUM_FMT:
        return VideoFormats::enumerate(record.fmtdesc_ENUM_FMT);
    case CAMERA_ENUM_FRAMESIZES:
        return VideoFormats::enumerate(record.framesize_ENUM_FRAMESIZES);
    case CAMERA_ENUM_FRAMEINTERVALS:
        return VideoFormats::enumerate(record.interval_ENUM_FRAMEINTERVALS);
    case CAMERA_G_FMT:
    case CAMERA_S_FMT:
    case CAMERA_TRY_FMT:
        return formatCall(handle, eCall, record.format_S_FMT);
    case CAMERA_G_PARM:
    case CAMERA_S_PARM:
        return rateCall(handle, eCall, record.parm_S_PARM);
    case CAMERA_CROPCAP:
    case CAMERA_G_CROP:
    case CAMERA_G_SELECTION:
        return cropCall(eCall, record);
    case CAMERA_REQBUFS:
    case CAMERA_QUERYBUF:
    case CAMERA_QBUF:
    case CAMERA_DQBUF:
    case CAMERA_mmap:
    case CAMERA_munmap:
        return bufferCall(handle, eCall, record, bBlocking, bWait);
    case CAMERA_STREAMON:
    case CAMERA_STREAMOFF:
        return streamCall(handle, eCall, record.s32Value_STREAMON);
    case CAMERA_QUERYCTRL:
    case CAMERA_QUERY_EXT_CTRL:
    case CAMERA_QUERYMENU:
    case CAMERA_G_CTRL:
    case CAMERA_S_CTRL:
    case CAMERA_G_EXT_CTRLS:
    case CAMERA_S_EXT_CTRLS:
    case CAMERA_TRY_EXT_CTRLS:
        return controlCall(eCall, record);
    case CAMERA_ENUMINPUT:
    case CAMERA_G_INPUT:
    case CAMERA_S_INPUT:
        return inputCall(eCall, record);
    case CAMERA_G_PRIORITY:
    case CAMERA_S_PRIORITY:
        return priorityCall(handle, eCall, record.u32Value_S_PRIORITY);
    case CAMERA_SUBSCRIBE_EVENT: // no event can be waited for
    case CAMERA_UNSUBSCRIBE_EVENT:
        return EINVAL;
    case CAMERA_DQEVENT:
        return ENOENT;
    case CAMERA_close:
        return 0;
    default:
        return ENOTTY;
    }
}

int UvcCamera::blockedByPriority(const ICameraHandle& handle, CAMERA_CALL_E eCall) const
{
    switch (eCall) {
    case CAMERA_S_FMT:
    case CAMERA_S_PARM:
    case CAMERA_REQBUFS:
    case CAMERA_STREAMON:
    case CAMERA_STREAMOFF:
    case CAMERA_S_CTRL:
    case CAMERA_S_EXT_CTRLS:
    case CAMERA_S_INPUT:
        for (const ICameraHandle* pOther : m_vecHandle) {
            if (!pOther->m_bDead && pOther->m_u32Priority > handle.m_u32Priority) {
                return EBUSY;
            }
        }
        return 0;
    default:
        return 0;
    }
}

int UvcCamera::formatCall(ICameraHandle& handle, CAMERA_CALL_E eCall, CameraFormat& format)
{
    if (V4L2_BUF_TYPE_VIDEO_CAPTURE != format.u32Type) {
        return EINVAL;
    }
    if (CAMERA_G_FMT == eCall) {
        format.pix = VideoFormats::describe(m_choice);
        return 0;
    }
    const VideoFormats::Choice choice = VideoFormats::nearest(format.pix);
    if (CAMERA_S_FMT == eCall) {
        const int nError = acquire(handle);
        if (0 != nError) {
            return nError;
        }
        if (m_queue.getCount() > 0) {
            return EBUSY;
        }
        m_choice = choice;
        m_interval = DEFAULT_INTERVAL; // the frame size brings its own
    }
    format.pix = VideoFormats::describe(choice);
    return 0;
}

int UvcCamera::rateCall(ICameraHandle& handle, CAMERA_CALL_E eCall, v4l2_streamparm& parm)
{
    if (V4L2_BUF_TYPE_VIDEO_CAPTURE != parm.type) {
        return EINVAL;
    }
    if (CAMERA_S_PARM == eCall) {
        const int nError = acquire(handle);
        if (0 != nError) {
            return nError;
        }
        if (m_queue.isStreaming()) {
            return EBUSY;
        }
        m_interval = m_faults.m_coercedRate
                         ? v4l2_fract{1, *m_faults.m_coercedRate}
                         : VideoFormats::nearestInterval(parm.parm.capture.timeperframe);
    }
    parm = {};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.capability = m_faults.m_bNoTimePerFrame ? 0 : V4L2_CAP_TIMEPERFRAME;
    parm.parm.capture.timeperframe = m_interval;
    return 0;
}

/**
 * The driver reports crop rectangles, which are the whole picture, but cannot crop: S_CROP fails
 * with ENOTTY.
 */
int UvcCamera::cropCall(CAMERA_CALL_E eCall, CameraRecord& record) const
{
    const v4l2_rect whole{0, 0, m_choice.u32Width, m_choice.u32Height};
    if (CAMERA_CROPCAP == eCall) {
        v4l2_cropcap& cropcap = record.cropcap_CROPCAP;
        if (V4L2_BUF_TYPE_VIDEO_CAPTURE != cropcap.type) {
            return EINVAL;
        }
        cropcap.bounds = whole;
        cropcap.defrect = whole;
        cropcap.pixelaspect = {1, 1};
        return 0;
    }
    if (CAMERA_G_SELECTION == eCall) {
        v4l2_selection& selection = record.selection_G_SELECTION;
        const bool bKnown = V4L2_SEL_TGT_CROP_DEFAULT == selection.target ||
                            V4L2_SEL_TGT_CROP_BOUNDS == selection.target;
        if (V4L2_BUF_TYPE_VIDEO_CAPTURE != selection.type || !bKnown) {
            return EINVAL;
        }
        selection.r = whole;
        return 0;
    }
    return EINVAL; // G_CROP: there is no active rectangle
}

int UvcCamera::requestBuffers(ICameraHandle& handle, v4l2_requestbuffers& request)
{
    const uint32_t u32Capabilities =
        V4L2_BUF_CAP_SUPPORTS_MMAP | V4L2_BUF_CAP_SUPPORTS_ORPHANED_BUFS;
    if (V4L2_BUF_TYPE_VIDEO_CAPTURE != request.type || V4L2_MEMORY_MMAP != request.memory) {
        return EINVAL;
    }
    const int nPrivilege = acquire(handle);
    if (0 != nPrivilege) {
        return nPrivilege;
    }
    uint32_t u32Count = std::min<uint32_t>(request.count, VIDEO_MAX_FRAME);
    if (u32Count > 0) {
        u32Count = m_faults.grant().value_or(u32Count);
    }
    const int nError =
        m_queue.allocate(handle.m_u32Session, u32Count, VideoFormats::bufferLength(m_choice));
    if (0 != nError) {
        return nError;
    }
    if (0 == request.count) {
        m_pOwner = nullptr;
    }
    request.count = u32Count;
    request.capabilities = u32Capabilities;
    return 0;
}

int UvcCamera::bufferCall(ICameraHandle& handle, CAMERA_CALL_E eCall, CameraRecord& record,
                          bool bBlocking, bool& bWait)
{
    switch (eCall) {
    case CAMERA_REQBUFS:
        return requestBuffers(handle, record.reqbufs_REQBUFS);
    case CAMERA_mmap:
        return m_queue.map(record.mapping_mmap); // any open may
    case CAMERA_munmap:
        m_queue.unmap(record.mapping_munmap.u32Offset);
        return 0;
    default:
        break;
    }
    if (&handle != m_pOwner) {
        return EBUSY;
    }
    CameraBuffer& buffer = record.buffer_DQBUF;
    switch (eCall) {
    case CAMERA_QUERYBUF:
        return m_queue.query(buffer);
    case CAMERA_QBUF:
        return m_bLeaving ? ENODEV : m_queue.enqueue(buffer);
    default:
        break;
    }
    const int nError = m_queue.dequeue(buffer);
    if (EAGAIN == nError && bBlocking) {
        bWait = true;
        return 0;
    }
    if (0 == nError) {
        buffer.u32Index = m_faults.index().value_or(buffer.u32Index);
    }
    return nError;
}

int UvcCamera::streamCall(ICameraHandle& handle, CAMERA_CALL_E eCall, int32_t s32Type)
{
    if (V4L2_BUF_TYPE_VIDEO_CAPTURE != s32Type) {
        return EINVAL;
    }
    if (&handle != m_pOwner) {
        return EBUSY;
    }
    if (CAMERA_STREAMOFF == eCall) {
        m_queue.streamOff();
        return 0;
    }
    if (m_queue.isStreaming()) {
        return 0;
    }
    const int nError = m_queue.streamOn();
    if (0 == nError) {
        ++m_u32Run;
        m_u32Sequence = 0;
        m_bDueKnown = false;
    }
    return nError;
}

int UvcCamera::controlCall(CAMERA_CALL_E eCall, CameraRecord& record)
{
    switch (eCall) {
    case CAMERA_QUERYCTRL:
        return m_controls.query(record.queryctrl_QUERYCTRL);
    case CAMERA_QUERY_EXT_CTRL:
        return m_controls.query(record.queryExt_QUERY_EXT_CTRL);
    case CAMERA_QUERYMENU:
        return m_controls.query(record.querymenu_QUERYMENU);
    case CAMERA_G_CTRL:
        return m_controls.get(record.control_G_CTRL);
    case CAMERA_S_CTRL:
        return m_controls.set(record.control_S_CTRL);
    case CAMERA_G_EXT_CTRLS:
        return m_controls.get(record.controls_G_EXT_CTRLS);
    case CAMERA_S_EXT_CTRLS:
        return m_controls.set(record.controls_S_EXT_CTRLS, false);
    default:
        return m_controls.set(record.controls_TRY_EXT_CTRLS, true);
    }
}

int UvcCamera::inputCall(CAMERA_CALL_E eCall, CameraRecord& record) const
{
    switch (eCall) {
    case CAMERA_ENUMINPUT: {
        v4l2_input& input = record.input_ENUMINPUT;
        if (0 != input.index) {
            return EINVAL;
        }
        input = {};
        snprintf(reinterpret_cast<char*>(input.name), sizeof(input.name), "Camera 1");
        input.type = V4L2_INPUT_TYPE_CAMERA;
        return 0;
    }
    case CAMERA_G_INPUT:
        record.s32Value_G_INPUT = 0;
        return 0;
    default:
        return 0 == record.s32Value_S_INPUT ? 0 : EINVAL;
    }
}

int UvcCamera::priorityCall(ICameraHandle& handle, CAMERA_CALL_E eCall, uint32_t& u32Priority)
{
    if (CAMERA_S_PRIORITY == eCall) {
        if (u32Priority < V4L2_PRIORITY_BACKGROUND || u32Priority > V4L2_PRIORITY_RECORD) {
            return EINVAL;
        }
        handle.m_u32Priority = u32Priority;
        return 0;
    }
    u32Priority = handle.m_u32Priority;
    for (const ICameraHandle* pOther : m_vecHandle) {
        u32Priority = std::max(u32Priority, pOther->m_bDead ? 0 : pOther->m_u32Priority);
    }
    return 0;
}
