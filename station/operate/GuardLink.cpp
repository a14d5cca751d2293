// The station's end of the guard: asks for what the operator wants, and follows what it tells.
#include "GuardLink.h"

#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "Time.h"

static const int LOOK_MS = 200;
static const uint64_t ANSWER_MS = 2000;
static const uint64_t COPY_MS = 30000; // 32 MiB from a slow card

using nlohmann::json;

namespace {

GuardState takeState(const json& answer)
{
    GuardState state;
    state.bPresent = true;
    state.strLevel = answer.value("level", "");
    state.bController = answer.value("controller", false);
    state.bBeamSeenOff = answer.value("beam_seen_off", false);
    state.bResetHeld = answer.value("reset_held", false);
    state.bHomed = answer.value("homed", false);
    state.bPaused = answer.value("paused", false);
    state.bHeld = answer.value("held", false);
    state.u64Line = answer.value("line", uint64_t{0});
    state.strJob = answer.value("job", "");
    const auto error = answer.find("controller_error");
    if (answer.end() != error && error->is_string()) {
        state.strPortError = error->get<std::string>();
    }
    const auto firmware = answer.find("firmware");
    if (answer.end() != firmware && firmware->is_number_unsigned()) {
        state.s64Firmware = firmware->get<int64_t>();
    }
    return state;
}

} // namespace

GuardLink::GuardLink(std::string strSocket, std::function<void(const json&)> onEvent,
                     std::function<void(const GuardState&)> onState)
    : m_strSocket(std::move(strSocket)), m_onEvent(std::move(onEvent)),
      m_onState(std::move(onState)), m_nWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

GuardLink::~GuardLink()
{
    stop();
    ::close(m_nWake);
}

void GuardLink::start()
{
    m_pThread = std::make_unique<Thread>(&GuardLink::loop, this, "station-guard", 0, 0, 0, true);
    (void)m_pThread->start(); // returns 0
}

void GuardLink::stop()
{
    m_bEnd = true;
    const uint64_t u64One = 1;
    (void)!::write(m_nWake, &u64One, sizeof(u64One)); // full: it wakes anyway
    m_pThread.reset();
    (void)m_cond.broadcast(); // cannot fail for a condition of ours
}

GuardState GuardLink::getState() const
{
    const MutexGuard guard(m_mtx);
    return m_state;
}

GuardState GuardLink::refresh(uint64_t u64TimeoutMs)
{
    const uint64_t u64EndMs = monotonicMs() + u64TimeoutMs;
    const uint64_t u64One = 1;
    const MutexGuard guard(m_mtx);
    const uint32_t u32Wanted = m_u32Begun + 1; // the one under way may be too old
    (void)!::write(m_nWake, &u64One, sizeof(u64One));
    // Looks come every 200 ms, so this ends even when none succeeds.
    while (!m_bEnd && m_u32Ended < u32Wanted && monotonicMs() < u64EndMs) {
        (void)m_cond.wait(m_mtx);
    }
    return m_state;
}

GuardLink::Answer GuardLink::askOn(Line& line, const json& request, int nPassed,
                                   uint64_t u64TimeoutMs)
{
    Answer answer;
    const MutexGuard guard(line.mtx);
    if (!line.connection.open(m_strSocket) || !line.connection.send(request.dump(), nPassed)) {
        return answer;
    }
    std::string strLine;
    const uint64_t u64EndMs = monotonicMs() + u64TimeoutMs;
    const GuardConnection::NEXT_E eNext = line.connection.next(strLine, u64EndMs);
    if (GuardConnection::NEXT_LINE != eNext) {
        line.connection.close(); // or the next request would get this one's answer
        answer.eResult = (GuardConnection::NEXT_LATE == eNext) ? Answer::LATE : Answer::GONE;
        return answer;
    }
    answer.content = json::parse(strLine, nullptr, false);
    const bool bDone = answer.content.is_object() && answer.content.value("ok", false);
    answer.eResult = bDone ? Answer::DONE : Answer::REFUSED;
    if (!bDone && answer.content.is_object()) {
        answer.strError = answer.content.value("error", "");
    }
    return answer;
}

GuardLink::Answer GuardLink::ask(const json& request, int nPassed)
{
    return askOn(m_requests, request, nPassed, (nPassed < 0) ? ANSWER_MS : COPY_MS);
}

GuardLink::Answer GuardLink::turnOff()
{
    return askOn(m_off, {{"do", "off"}}, -1, ANSWER_MS);
}

GuardLink::Answer GuardLink::openJob(int nFile, int nLeaseMs)
{
    return askOn(m_job, {{"do", "job"}, {"lease", nLeaseMs}}, nFile, COPY_MS);
}

GuardLink::Answer GuardLink::renewLease()
{
    return askOn(m_job, {{"do", "lease"}}, -1, ANSWER_MS);
}

int GuardLink::loop()
{
    if (m_bEnd) {
        return 1;
    }
    {
        const MutexGuard guard(m_mtx);
        ++m_u32Begun;
    }
    if (!look()) {
        m_events.close();
        publish({});
    }
    {
        const MutexGuard guard(m_mtx);
        m_u32Ended = m_u32Begun;
    }
    (void)m_cond.broadcast();
    pollfd aPoll[] = {{m_nWake, POLLIN, 0}, {m_events.getFd(), POLLIN, 0}}; // -1 is left out
    (void)poll(aPoll, 2, LOOK_MS); // whatever it says, the next look follows
    uint64_t u64Count = 0;
    (void)!::read(m_nWake, &u64Count, sizeof(u64Count)); // nothing to read: not woken
    return 0;
}

/** @return false when the guard is not there, or does not answer */
bool GuardLink::look()
{
    if (m_events.getFd() < 0) {
        if (!m_events.open(m_strSocket) || !m_events.send(R"({"do":"events"})")) {
            return false;
        }
    }
    if (!m_events.send(R"({"do":"state"})")) {
        return false;
    }
    const uint64_t u64EndMs = monotonicMs() + ANSWER_MS;
    std::string strLine;
    while (GuardConnection::NEXT_LINE == m_events.next(strLine, u64EndMs)) {
        const json message = json::parse(strLine, nullptr, false);
        if (message.is_object() && message.contains("event")) {
            m_onEvent(message);
        } else if (message.is_object() && message.contains("level")) {
            publish(takeState(message));
            return true;
        }
    }
    return false;
}

void GuardLink::publish(const GuardState& state)
{
    {
        const MutexGuard guard(m_mtx);
        m_state = state;
    }
    m_onState(state);
}
