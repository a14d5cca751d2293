// What the camera does wrong on command.
#pragma once

#include <cstdint>
#include <list>
#include <optional>

#include "preload/CameraProtocol.h"

/** The faults in force; counted ones run out. No locking: the camera's lock covers it. */
class CameraFaults
{
public:
    static const uint32_t ALWAYS = UINT32_MAX;

    /** Answer u32Count calls with an error, after u32Skip that go through. */
    void failCall(CAMERA_CALL_E eCall, int nErrno, uint32_t u32Count, uint32_t u32Skip);
    /** The error for this call, 0 for none; counts as a use. */
    int failure(CAMERA_CALL_E eCall);

    /** Give u32Count frames this number of bytes; more than the buffer's length is only claimed. */
    void setBytes(uint32_t u32Bytes, uint32_t u32Count);
    /** Flag u32Count frames as broken. */
    void setBroken(uint32_t u32Count);
    /** Whether the next frame is; counts as a use. */
    bool broken();
    /** As many bytes as the buffer has, and one. */
    void setOverflow(uint32_t u32Count);
    /** The number of bytes of the next frame; counts as a use. */
    std::optional<uint32_t> bytes(uint32_t u32BufferLength);

    /** Have u32Count dequeues name this buffer. */
    void setIndex(uint32_t u32Index, uint32_t u32Count);
    std::optional<uint32_t> index();

    /** Grant this many buffers to u32Count requests, whatever they ask. */
    void setGrant(uint32_t u32Buffers, uint32_t u32Count);
    std::optional<uint32_t> grant();

    std::optional<uint32_t> m_coercedRate;      // frames per second that every S_PARM is granted
    std::optional<uint32_t> m_capabilities;     // that QUERYCAP returns
    bool m_bNoTimePerFrame = false;             // the capability is not announced
    bool m_bFrozen = false;                     // no frame is filled
    bool m_bRegularNode = false;                // stat finds a regular file
    std::optional<CAMERA_CALL_E> m_unplugAfter; // unplug when this call has succeeded

private:
    struct CallFault
    {
        CAMERA_CALL_E eCall;
        int nErrno;
        uint32_t u32Count;
        uint32_t u32Skip;
    };
    struct ValueFault
    {
        uint32_t u32Value = 0;
        uint32_t u32Count = 0; // 0: not in force
    };
    static std::optional<uint32_t> use(ValueFault& fault);

    std::list<CallFault> m_listCall;
    ValueFault m_bytes;
    bool m_bOverflow = false;
    ValueFault m_broken;
    ValueFault m_index;
    ValueFault m_grant;
};
