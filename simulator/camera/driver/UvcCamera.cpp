// The virtual camera's driver: plugging, opens, the path of a call and the frame clock.
#include "UvcCamera.h"

#include <algorithm>
#include <cerrno>

namespace {

const uint32_t MAX_RATE = 200; // frames per second

} // namespace

UvcCamera::UvcCamera(const std::string& strDir, CameraJournal& journal, FrameLog& frameLog)
    : m_journal(journal), m_frameLog(frameLog), m_queue(strDir)
{
}

void UvcCamera::onPlug(PlugHandler pHandler, void* pContext)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    m_pPlugHandler = pHandler;
    m_pPlugContext = pContext;
}

namespace {

std::string lineOf(CAMERA_CALL_E eCall, const std::string& strAsked, int nErrno,
                   const std::string& strGranted)
{
    std::string strLine = callName(eCall);
    strLine += strAsked.empty() ? "" : " " + strAsked;
    strLine += 0 == nErrno ? " = 0" : " = -1 " + errorName(nErrno);
    strLine += 0 == nErrno && !strGranted.empty() ? " " + strGranted : "";
    return strLine;
}

} // namespace

void UvcCamera::stat(CameraNode& node)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    node.s32Errno = m_faults.failure(CAMERA_stat);
    if (0 == node.s32Errno && (!m_bPlugged || node.u32Number != m_u32Node)) {
        node.s32Errno = ENOENT;
    }
    node.u32Kind = m_faults.m_bRegularNode ? CAMERA_NODE_REGULAR : CAMERA_NODE_CHARACTER;
    CameraRecord record{};
    record.node_stat = node;
    m_journal.call(node.u32Pid, 0,
                   lineOf(CAMERA_stat, askedText(CAMERA_stat, record), node.s32Errno,
                          grantedText(CAMERA_stat, record)));
}

bool UvcCamera::open(CameraNode& node, ICameraHandle& handle)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    node.s32Errno = m_faults.failure(CAMERA_open);
    if (0 == node.s32Errno && (!m_bPlugged || node.u32Number != m_u32Node)) {
        node.s32Errno = ENOENT;
    }
    node.u32Session = 0;
    if (0 == node.s32Errno) {
        handle.m_u32Session = ++m_u32LastSession;
        node.u32Session = handle.m_u32Session;
        m_vecHandle.push_back(&handle);
    }
    CameraRecord record{};
    record.node_open = node;
    m_journal.call(node.u32Pid, node.u32Session,
                   lineOf(CAMERA_open, askedText(CAMERA_open, record), node.s32Errno, ""));
    return 0 == node.s32Errno;
}

void UvcCamera::opened(ICameraHandle& handle)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    settle(handle);
}

UvcCamera::Answer UvcCamera::call(ICameraHandle& handle, uint32_t u32Pid, CAMERA_CALL_E eCall,
                                  CameraRecord& record, bool bBlocking)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    const std::string strAsked = askedText(eCall, record);
    Answer answer;
    const bool bAlways = CAMERA_close == eCall || CAMERA_munmap == eCall; // also once unplugged
    if (handle.m_bDead && !bAlways) {
        answer.nErrno = ENODEV;
    } else {
        answer.nErrno = m_faults.failure(eCall);
    }
    if (0 == answer.nErrno) {
        answer.nErrno = dispatch(handle, eCall, record, bBlocking, answer.bWait);
    }
    if (!answer.bWait) {
        m_journal.call(u32Pid, handle.m_u32Session,
                       lineOf(eCall, strAsked, answer.nErrno,
                              0 == answer.nErrno ? grantedText(eCall, record) : ""));
    }
    if (0 == answer.nErrno && !answer.bWait && m_faults.m_unplugAfter == eCall) {
        m_faults.m_unplugAfter.reset();
        unplugLocked();
    }
    if (CAMERA_close == eCall) {
        release(handle);
    } else {
        settle(handle);
    }
    answer.u32TakeOff = handle.takeOff();
    m_condition.notify_all();
    return answer;
}

void UvcCamera::close(ICameraHandle& handle)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    release(handle);
}

int UvcCamera::acquire(ICameraHandle& handle)
{
    if (nullptr != m_pOwner && &handle != m_pOwner) {
        return EBUSY;
    }
    m_pOwner = &handle;
    return 0;
}

void UvcCamera::release(ICameraHandle& handle)
{
    if (&handle == m_pOwner) {
        m_queue.streamOff();
        (void)m_queue.allocate(0, 0, 0); // freeing while streaming is off cannot fail
        m_pOwner = nullptr;
    }
    m_vecHandle.erase(std::remove(m_vecHandle.begin(), m_vecHandle.end(), &handle),
                      m_vecHandle.end());
}

/**
 * An open without the privilege has no queue of its own to wait for: it polls as one that does not
 * stream.
 */
void UvcCamera::settle(ICameraHandle& handle)
{
    if (!handle.m_bDead) {
        handle.setReadable(&handle != m_pOwner || m_queue.isReadable());
    }
}

void UvcCamera::unplug()
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    unplugLocked();
}

void UvcCamera::unplugSlowly(std::chrono::milliseconds time)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    if (!m_bPlugged || m_bLeaving) {
        return;
    }
    m_bLeaving = true;
    m_gone = Clock::now() + time;
    m_queue.cancel();
    for (ICameraHandle* pHandle : m_vecHandle) {
        settle(*pHandle);
    }
    m_condition.notify_all();
}

void UvcCamera::unplugLocked()
{
    if (!m_bPlugged) {
        return;
    }
    m_bPlugged = false;
    m_bLeaving = false;
    m_journal.note("unplug");
    if (nullptr != m_pPlugHandler) {
        m_pPlugHandler(m_pPlugContext, false, m_u32Node);
    }
    for (ICameraHandle* pHandle : m_vecHandle) {
        if (!pHandle->m_bDead) {
            pHandle->m_bDead = true;
            pHandle->unplugged();
        }
    }
    m_queue.streamOff();
    (void)m_queue.allocate(0, 0, 0); // freeing while streaming is off cannot fail
    m_pOwner = nullptr;
    m_controls = VideoControls(); // a camera starts afresh
    m_choice = VideoFormats::Choice();
    m_interval = DEFAULT_INTERVAL;
}

void UvcCamera::replug(uint32_t u32Node)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    if (m_bPlugged) {
        return;
    }
    m_bPlugged = true;
    m_u32Node = u32Node;
    m_journal.note("replug");
    if (nullptr != m_pPlugHandler) {
        m_pPlugHandler(m_pPlugContext, true, m_u32Node);
    }
}

void UvcCamera::setRate(uint32_t u32Rate)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    m_u32ForcedRate = std::min(u32Rate, MAX_RATE);
    m_bDueKnown = false;
    m_condition.notify_all();
}

std::chrono::nanoseconds UvcCamera::getInterval() const
{
    const int64_t s64Second = 1000000000;
    return std::chrono::nanoseconds(m_u32ForcedRate > 0 ? s64Second / m_u32ForcedRate
                                                        : s64Second * m_interval.numerator /
                                                              m_interval.denominator);
}

UvcCamera::Status UvcCamera::status()
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    return {m_bPlugged,
            m_queue.isStreaming(),
            m_faults.m_bFrozen,
            static_cast<uint32_t>(m_vecHandle.size()),
            m_u32Number,
            1e9 / static_cast<double>(getInterval().count()),
            m_choice};
}

uint32_t UvcCamera::cpuMicroseconds()
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    uint32_t u32Sum = 0;
    for (const ICameraHandle* pHandle : m_vecHandle) {
        u32Sum += pHandle->m_u32CpuMicroseconds;
    }
    return u32Sum;
}

Truth UvcCamera::truth()
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    return m_truth;
}

bool UvcCamera::waitForFrame(PictureRequest& request)
{
    std::unique_lock<std::mutex> lock(m_mtx);
    for (;;) {
        if (m_bQuit) {
            return false;
        }
        if (m_bLeaving) {
            if (Clock::now() >= m_gone) {
                unplugLocked();
            } else {
                m_condition.wait_until(lock, m_gone);
            }
            continue;
        }
        if (!m_queue.isStreaming() || m_faults.m_bFrozen) {
            m_bDueKnown = false;
            m_condition.wait(lock);
            continue;
        }
        const Clock::time_point now = Clock::now();
        if (!m_bDueKnown || m_due + 2 * getInterval() < now) { // started, or fallen behind
            m_due = now + getInterval();
            m_bDueKnown = true;
        }
        if (now < m_due) {
            m_condition.wait_until(lock, m_due);
            continue;
        }
        request.s64Microseconds =
            std::chrono::duration_cast<std::chrono::microseconds>(m_due.time_since_epoch()).count();
        m_due += getInterval();
        request.u32Number = ++m_u32Number;
        request.u32Sequence = m_u32Sequence++;
        request.u32Run = m_u32Run;
        request.choice = m_choice;
        request.dExposure = m_controls.getExposureFactor();
        request.s32Brightness = m_controls.getBrightness();
        if (m_queue.isHungry()) {
            return true;
        }
        m_frameLog.dropped(request); // no buffer to fill: not drawn
    }
}

void UvcCamera::putFrame(const PictureRequest& request, const Picture& picture)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    if (!m_queue.isStreaming() || m_bLeaving || m_faults.m_bFrozen || request.u32Run != m_u32Run ||
        !m_queue.isHungry()) {
        m_frameLog.dropped(request);
        return;
    }
    const uint32_t u32Length = VideoFormats::bufferLength(request.choice);
    uint32_t u32BytesUsed = static_cast<uint32_t>(picture.vecByte.size());
    const Picture* pPut = &picture;
    Picture changed;
    if (const std::optional<uint32_t> bytes = m_faults.bytes(u32Length)) {
        u32BytesUsed = *bytes;
        changed = picture;
        changed.vecByte.resize(std::min(*bytes, u32Length));
        pPut = &changed;
    }
    const bool bBroken = m_faults.broken();
    const size_t uPut = std::min<size_t>(pPut->vecByte.size(), u32Length);
    const int nIndex = m_queue.fill(
        {&pPut->vecByte, u32BytesUsed, request.u32Sequence, request.s64Microseconds, bBroken});
    m_frameLog.produced(request, *pPut, u32BytesUsed, uPut, nIndex);
    m_truth = picture.truth;
    m_truth.u32Number = request.u32Number;
    settle(*m_pOwner);
}

void UvcCamera::quit()
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    m_bQuit = true;
    m_condition.notify_all();
}
