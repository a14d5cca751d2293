// What the preloaded camera library and kestrel-camera share: files, records, one call at a time.
#pragma once

#include <linux/videodev2.h>
#include <stdint.h>

/*
 * The library asks, kestrel-camera answers: all the driver's state lives there. Records have fixed
 * widths and no pointers, so that a 32-bit library and a 64-bit program understand each other.
 * Error numbers are those up to ERANGE (34), which every Linux architecture has in common.
 *
 * An opened camera is a connection to CAMERA_DEVICE_SOCKET. Its descriptor is what the program that
 * opened the camera holds; a packet waits on it exactly while select is to find it readable, and
 * kestrel-camera shuts it down when the camera is unplugged. Calls do not travel on it but through
 * CameraPage, a file both sides map: the caller takes u32Lock, fills the page, counts u32Request up
 * and wakes its waiters; the answer is there when u32Reply equals u32Request.
 */

#define CAMERA_NODE "/dev/video" /* and a number */
#define CAMERA_INPUT_LIST "/proc/bus/input/devices"
#define CAMERA_UEVENT "/sys/dev/char/81:" /* a number and the next; so v4l2-ctl knows a node */
#define CAMERA_UEVENT_END "/uevent"
#define CAMERA_DIR_VARIABLE "KESTREL_CAMERA_DIR"

/* Names below the directory that CAMERA_DIR_VARIABLE names. */
#define CAMERA_DEVICE_SOCKET "device.sock"
#define CAMERA_INPUTS_FILE "inputs"         /* in place of CAMERA_INPUT_LIST */
#define CAMERA_UEVENT_FILE "uevent-%u"      /* in place of CAMERA_UEVENT; %u: number */
#define CAMERA_SESSION_FILE "session-%u"    /* %u: session; holds its CameraPage */
#define CAMERA_BUFFERS_FILE "buffers-%u-%u" /* %u: session, allocation; the video buffers */

#define CAMERA_MAJOR 81 /* Documentation/admin-guide/devices.txt: video4linux */

/*
 * Calls whose record has one layout on every architecture: X(name behind VIDIOC_, C type, field).
 */
#define CAMERA_PLAIN_CALLS(X)                                                                      \
    X(QUERYCAP, struct v4l2_capability, cap)                                                       \
    X(ENUM_FMT, struct v4l2_fmtdesc, fmtdesc)                                                      \
    X(REQBUFS, struct v4l2_requestbuffers, reqbufs)                                                \
    X(STREAMON, int32_t, s32Value)                                                                 \
    X(STREAMOFF, int32_t, s32Value)                                                                \
    X(G_PARM, struct v4l2_streamparm, parm)                                                        \
    X(S_PARM, struct v4l2_streamparm, parm)                                                        \
    X(CROPCAP, struct v4l2_cropcap, cropcap)                                                       \
    X(G_CROP, struct v4l2_crop, crop)                                                              \
    X(S_CROP, struct v4l2_crop, crop)                                                              \
    X(G_SELECTION, struct v4l2_selection, selection)                                               \
    X(ENUM_FRAMESIZES, struct v4l2_frmsizeenum, framesize)                                         \
    X(ENUM_FRAMEINTERVALS, struct v4l2_frmivalenum, interval)                                      \
    X(QUERYCTRL, struct v4l2_queryctrl, queryctrl)                                                 \
    X(QUERY_EXT_CTRL, struct v4l2_query_ext_ctrl, queryExt)                                        \
    X(QUERYMENU, struct v4l2_querymenu, querymenu)                                                 \
    X(G_CTRL, struct v4l2_control, control)                                                        \
    X(S_CTRL, struct v4l2_control, control)                                                        \
    X(ENUMINPUT, struct v4l2_input, input)                                                         \
    X(G_INPUT, int32_t, s32Value)                                                                  \
    X(S_INPUT, int32_t, s32Value)                                                                  \
    X(G_PRIORITY, uint32_t, u32Value)                                                              \
    X(S_PRIORITY, uint32_t, u32Value)                                                              \
    X(SUBSCRIBE_EVENT, struct v4l2_event_subscription, subscription)                               \
    X(UNSUBSCRIBE_EVENT, struct v4l2_event_subscription, subscription)

/* Calls whose record the library translates: X(name behind VIDIOC_, C type, field). */
#define CAMERA_TRANSLATED_CALLS(X)                                                                 \
    X(G_FMT, struct CameraFormat, format)                                                          \
    X(S_FMT, struct CameraFormat, format)                                                          \
    X(TRY_FMT, struct CameraFormat, format)                                                        \
    X(QUERYBUF, struct CameraBuffer, buffer)                                                       \
    X(QBUF, struct CameraBuffer, buffer)                                                           \
    X(DQBUF, struct CameraBuffer, buffer)                                                          \
    X(G_EXT_CTRLS, struct CameraControls, controls)                                                \
    X(S_EXT_CTRLS, struct CameraControls, controls)                                                \
    X(TRY_EXT_CTRLS, struct CameraControls, controls)                                              \
    X(DQEVENT, uint32_t, u32Value)

/* Calls other than ioctl: X(name, C type, field). */
#define CAMERA_OTHER_CALLS(X)                                                                      \
    X(stat, struct CameraNode, node)                                                               \
    X(open, struct CameraNode, node)                                                               \
    X(mmap, struct CameraMapping, mapping)                                                         \
    X(munmap, struct CameraMapping, mapping)                                                       \
    X(close, uint32_t, u32Value)                                                                   \
    X(ioctl, uint32_t, u32Value) /* one the driver does not know: its number */

#define CAMERA_ALL_CALLS(X) CAMERA_PLAIN_CALLS(X) CAMERA_TRANSLATED_CALLS(X) CAMERA_OTHER_CALLS(X)

enum CAMERA_CALL_E
{
#define CAMERA_ENUMERATOR(name, type, field) CAMERA_##name,
    CAMERA_ALL_CALLS(CAMERA_ENUMERATOR)
#undef CAMERA_ENUMERATOR
        CAMERA_CALLS
};

struct CameraFormat
{
    uint32_t u32Type; /* enum v4l2_buf_type */
    struct v4l2_pix_format pix;
};

struct CameraBuffer
{
    uint32_t u32Index;
    uint32_t u32Type;
    uint32_t u32BytesUsed;
    uint32_t u32Flags;
    uint32_t u32Field;
    uint32_t u32Seconds; /* CLOCK_MONOTONIC */
    uint32_t u32Microseconds;
    uint32_t u32Sequence;
    uint32_t u32Memory;
    uint32_t u32Offset;
    uint32_t u32Length;
};

#define CAMERA_MAX_CONTROLS 32 /* of one call; more fail with EINVAL */

struct CameraControls
{
    uint32_t u32Which;
    uint32_t u32Count;
    uint32_t u32ErrorIndex;
    struct
    {
        uint32_t u32Id;
        int32_t s32Value;
    } control[CAMERA_MAX_CONTROLS];
};

/* Flags of an open, independent of the architecture's own numbers. */
#define CAMERA_OPEN_WRITE 1u
#define CAMERA_OPEN_READ 2u
#define CAMERA_OPEN_NONBLOCK 4u
#define CAMERA_OPEN_CLOEXEC 8u

#define CAMERA_NODE_CHARACTER 0u
#define CAMERA_NODE_REGULAR 1u

/* The first packet of a connection and its answer; a stat ends with it. */
struct CameraNode
{
    uint32_t u32Call;    /* CAMERA_stat or CAMERA_open */
    uint32_t u32Pid;     /* of the caller */
    uint32_t u32Flags;   /* CAMERA_OPEN_... */
    uint32_t u32Number;  /* of the node; also its minor number */
    int32_t s32Errno;    /* answer: 0 or an error number */
    uint32_t u32Kind;    /* answer to stat: CAMERA_NODE_... */
    uint32_t u32Session; /* answer to open: from 1 */
};

#define CAMERA_MAP_READ 1u
#define CAMERA_MAP_WRITE 2u
#define CAMERA_MAP_SHARED 4u

struct CameraMapping
{
    uint32_t u32Offset;
    uint32_t u32Length;
    uint32_t u32Flags;      /* CAMERA_MAP_... */
    uint32_t u32Session;    /* answer to mmap: first number of CAMERA_BUFFERS_FILE */
    uint32_t u32Allocation; /* the second */
};

struct CameraPage
{
    uint32_t u32Lock;      /* 0 free, 1 held, 2 held and waited for */
    uint32_t u32Request;   /* calls made; kestrel-camera waits on it */
    uint32_t u32Reply;     /* calls answered; the caller waits on it */
    uint32_t u32Gone;      /* kestrel-camera has ended: no call will be answered */
    uint32_t u32Unplugged; /* the connection was shut down by an unplug */

    uint32_t u32Call;            /* enum CAMERA_CALL_E */
    uint32_t u32Pid;             /* of the caller */
    uint32_t u32Blocking;        /* the descriptor is not O_NONBLOCK */
    int32_t s32Errno;            /* answer: 0 or an error number */
    uint32_t u32Wait;            /* answer to DQBUF: 1 wait for readability, then ask again */
    uint32_t u32Packets;         /* answer: packets to take off the descriptor */
    uint32_t u32CpuMicroseconds; /* the callers' processor time in the library; wraps */
    union
    {
#define CAMERA_FIELD(name, type, field) type field##_##name;
        CAMERA_ALL_CALLS(CAMERA_FIELD)
#undef CAMERA_FIELD
    } record;
};

#define CAMERA_PAGE_SIZE 4096u

#ifdef __cplusplus
static_assert(sizeof(struct v4l2_query_ext_ctrl) == 232, "one layout on every architecture");
static_assert(sizeof(struct v4l2_input) == 80, "one layout on every architecture");
static_assert(sizeof(struct v4l2_streamparm) == 204, "one layout on every architecture");
static_assert(sizeof(struct CameraPage) <= CAMERA_PAGE_SIZE, "the page is one page");
#else
_Static_assert(sizeof(struct v4l2_query_ext_ctrl) == 232, "one layout on every architecture");
_Static_assert(sizeof(struct v4l2_input) == 80, "one layout on every architecture");
_Static_assert(sizeof(struct v4l2_streamparm) == 204, "one layout on every architecture");
_Static_assert(sizeof(struct CameraPage) <= CAMERA_PAGE_SIZE, "the page is one page");
#endif
