// What the camera does wrong on command.
#include "CameraFaults.h"

void CameraFaults::failCall(CAMERA_CALL_E eCall, int nErrno, uint32_t u32Count, uint32_t u32Skip)
{
    m_listCall.push_back({eCall, nErrno, u32Count, u32Skip});
}

int CameraFaults::failure(CAMERA_CALL_E eCall)
{
    for (auto it = m_listCall.begin(); it != m_listCall.end(); ++it) {
        if (it->eCall != eCall) {
            continue;
        }
        if (it->u32Skip > 0) {
            --it->u32Skip;
            return 0;
        }
        const int nErrno = it->nErrno;
        if (ALWAYS != it->u32Count && 0 == --it->u32Count) {
            m_listCall.erase(it);
        }
        return nErrno;
    }
    return 0;
}

std::optional<uint32_t> CameraFaults::use(ValueFault& fault)
{
    if (0 == fault.u32Count) {
        return std::nullopt;
    }
    fault.u32Count -= ALWAYS == fault.u32Count ? 0 : 1;
    return fault.u32Value;
}

void CameraFaults::setBytes(uint32_t u32Bytes, uint32_t u32Count)
{
    m_bytes = {u32Bytes, u32Count};
    m_bOverflow = false;
}

void CameraFaults::setBroken(uint32_t u32Count)
{
    m_broken = {1, u32Count};
}

bool CameraFaults::broken()
{
    return use(m_broken).has_value();
}

void CameraFaults::setOverflow(uint32_t u32Count)
{
    m_bytes = {0, u32Count};
    m_bOverflow = true;
}

std::optional<uint32_t> CameraFaults::bytes(uint32_t u32BufferLength)
{
    const std::optional<uint32_t> bytes = use(m_bytes);
    return bytes && m_bOverflow ? u32BufferLength + 1 : bytes;
}

void CameraFaults::setIndex(uint32_t u32Index, uint32_t u32Count)
{
    m_index = {u32Index, u32Count};
}

std::optional<uint32_t> CameraFaults::index()
{
    return use(m_index);
}

void CameraFaults::setGrant(uint32_t u32Buffers, uint32_t u32Count)
{
    m_grant = {u32Buffers, u32Count};
}

std::optional<uint32_t> CameraFaults::grant()
{
    return use(m_grant);
}
