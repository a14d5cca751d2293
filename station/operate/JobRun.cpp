// The job that runs: opened at the guard, sent by the print service, held and ended.
#include "JobRun.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <utility>

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include "ApiProblem.h"
#include "GuardProblem.h"
#include "PrintService.h"
#include "Time.h"
#include "WallTime.h"

static const char* const PRINT_FILE = "tmp.gcode"; // the print service's name for its job

static const uint64_t RECORD_MS = 1000;  // between two writings of the line
static const uint64_t REFRESH_MS = 2000; // for the guard to be looked at
static const Time END_STEP(0, 20000);
static const int END_STEPS = 100; // 2 s, for a job that has ended by itself

using nlohmann::json;

namespace {

std::string makeSecret()
{
    std::array<unsigned char, 16> acRandom{};
    if (static_cast<ssize_t>(acRandom.size()) != getrandom(acRandom.data(), acRandom.size(), 0)) {
        throw ApiProblem("internal", "There is no random number.");
    }
    std::string strText;
    for (const unsigned char c : acRandom) {
        std::array<char, 3> acDigits{};
        snprintf(acDigits.data(), acDigits.size(), "%02x", c);
        strText += acDigits.data();
    }
    return strText;
}

double round1(double dValue)
{
    return std::round(dValue * 10) / 10;
}

} // namespace

JobRun::JobRun(GuardLink& guard, const ArmTerminal& terminal, const PictureWatch& pictures,
               StationJournal& journal)
    : m_guard(guard), m_terminal(terminal), m_pictures(pictures), m_journal(journal)
{
    const JobRecord record = JobRecord::read();
    const MutexGuard lock(m_mtx);
    m_last = record.last;
    m_bInterrupted = record.bRunning;
    m_interrupted = record.running;
}

JobRun::~JobRun() = default;

json JobRun::makeLast(const char* pResult, const std::string& strReason) const
{
    return {{"name", m_run.strName},
            {"sha256", m_run.strSum},
            {"lines", m_run.getLines()},
            {"line", m_run.place.toFile(m_run.u64Line)},
            {"result", pResult},
            {"reason", strReason.empty() ? json(nullptr) : json(strReason)},
            {"restart", nullptr},
            {"ended", getWallTime()}};
}

/** The print service reads the very file that the guard is given. */
void JobRun::placeFile(const RunnableJob& job)
{
    (void)unlink(PRINT_FILE); // none as a rule
    const std::string strName = job.job["name"];
    if (1 == job.uLine) {
        if (0 != link(JobStore::getPath(strName).c_str(), PRINT_FILE)) {
            throw ApiProblem("internal", "The print service cannot be given the file.");
        }
        return;
    }
    std::ofstream file(PRINT_FILE);
    file << job.strText;
    file.close();
    if (!file) {
        throw ApiProblem("no-space", "The print service cannot be given the rest of the file.");
    }
}

std::string JobRun::start(const RunnableJob& job, bool bUnattended,
                          const Configuration& configuration)
{
    if (!bUnattended && !m_pictures.isPresent()) {
        throw ApiProblem("no-camera", "No picture came in the last 2 s.");
    }
    ArmUse::getInstance().awaitJobEnd();
    ArmUser user(ARM_JOB);
    if (!user.hasBegun()) {
        throw ApiProblem("busy", "The arm is in use.");
    }
    const GuardState state = m_guard.refresh(REFRESH_MS);
    if (!state.bPresent) {
        throw ApiProblem("no-guard", "Nobody answers at the guard's socket.");
    }
    if (!m_terminal.isOpen()) {
        throw ApiProblem("no-terminal", "The terminal is not open.");
    }
    Run run;
    run.bThere = true;
    run.strName = job.job["name"];
    run.strSum = job.job["sha256"];
    run.u64Size = job.job["size"];
    run.place = {job.strSum, job.uLine - 1, job.uAdded};
    run.bUnattended = bUnattended;
    run.strStarted = getWallTime();
    run.strLease = makeSecret();
    run.pProfile = std::make_shared<const JobProfile>(job.strText, configuration, job.dSeconds);
    placeFile(job);
    const int nFile = ::open(PRINT_FILE, O_RDONLY | O_CLOEXEC);
    const GuardLink::Answer answer = m_guard.openJob(nFile, LEASE_MS);
    ::close(nFile);
    demandDone(answer);
    if (answer.content.value("sha256", "") != job.strSum) {
        (void)m_guard.turnOff();
        throw ApiProblem("internal", "The file is another than the one that was looked through.");
    }
    run.u64SeenMs = monotonicMs();
    run.u64LeaseEndMs = run.u64SeenMs + LEASE_MS;
    const std::string strLease = run.strLease;
    {
        const MutexGuard guard(m_mtx);
        m_run = run;
        m_bInterrupted = false;
        JobRecord{makeLast("interrupted", ""), true, m_run.place}.write();
    }
    m_journal.add("operator",
                  "job " + run.strName + (bUnattended ? " started UNATTENDED" : " started") +
                      ((1 == job.uLine) ? "" : " at line " + std::to_string(job.uLine)));
    user.release();                    // tidyUp() ends it
    (void)m_guard.refresh(REFRESH_MS); // what it tells from now on is about this job
    const bool bSent = 0 == PrintService::getInstance().startPrint();
    {
        const MutexGuard guard(m_mtx);
        m_run.bFollowed = true;
    }
    if (!bSent) {
        (void)m_guard.turnOff();
        throw ApiProblem("no-terminal", "The print service does not start.");
    }
    return strLease;
}

void JobRun::demandRun() const
{
    const MutexGuard guard(m_mtx);
    if (!m_run.bThere) {
        throw ApiProblem("no-job", "No job runs.");
    }
}

void JobRun::renew(const std::string& strLease)
{
    {
        const MutexGuard guard(m_mtx);
        if (!m_run.bThere) {
            throw ApiProblem("no-job", "No job runs.");
        }
        if (m_run.strLease != strLease) {
            throw ApiProblem("lease", "The job was started by somebody else.");
        }
    }
    const uint64_t u64NowMs = monotonicMs();
    demandDone(m_guard.renewLease());
    const MutexGuard guard(m_mtx);
    m_run.u64LeaseEndMs = u64NowMs + LEASE_MS;
}

void JobRun::hold(HELD_E eHeld)
{
    demandDone(m_guard.ask({{"do", "pause"}}));
    const MutexGuard guard(m_mtx);
    m_run.eHeld = eHeld;
}

void JobRun::pause()
{
    demandRun();
    m_journal.add("operator", "pause");
    hold(HELD_BY_OPERATOR);
}

void JobRun::resume()
{
    demandRun();
    {
        const MutexGuard guard(m_mtx);
        if (!m_run.bUnattended && !m_pictures.isPresent()) {
            throw ApiProblem("no-camera", "No picture came in the last 2 s.");
        }
    }
    m_journal.add("operator", "resume");
    demandDone(m_guard.ask({{"do", "resume"}}));
    const MutexGuard guard(m_mtx);
    m_run.eHeld = HELD_NOT;
}

void JobRun::stop()
{
    demandRun();
    noteOff();
    const GuardLink::Answer answer = m_guard.turnOff(); // before it is noted
    m_journal.add("operator", "stop");
    demandDone(answer);
}

void JobRun::noteOff()
{
    const MutexGuard guard(m_mtx);
    m_run.bStopped = m_run.bThere;
}

void JobRun::onGuardEvent(const json& event)
{
    const std::string strEvent = event.value("event", "");
    const MutexGuard guard(m_mtx);
    if (!m_run.bThere) {
        return;
    }
    if ("job done" == strEvent) {
        m_run.bDone = true;
    } else if ("trip" == strEvent) {
        m_run.strTrip = event.value("reason", "");
    }
}

void JobRun::onGuardState(const GuardState& state)
{
    const MutexGuard guard(m_mtx);
    if (m_bInterrupted && state.bPresent && "job" != state.strLevel) {
        m_bInterrupted = false;
        if (m_interrupted.strSum == state.strJob) {
            m_last["line"] = m_interrupted.toFile(state.u64Line); // it knows better than the record
        }
        m_journal.add("station", "job " + m_last.value("name", "") +
                                     " was interrupted behind line " + m_last["line"].dump() +
                                     " of " + m_last["lines"].dump());
        JobRecord{m_last, false, {}}.write();
    }
    if (!m_run.bThere) {
        return;
    }
    if (state.bPresent && state.strJob == m_run.place.strSum &&
        ("job" == state.strLevel || m_run.bFollowed)) {
        m_run.u64Line = std::max(m_run.u64Line, state.u64Line);
    }
    if (m_run.bFollowed && "job" != state.strLevel) {
        finish(state);
    } else if (state.bHeld && HELD_NOT == m_run.eHeld) {
        m_run.eHeld = HELD_BY_CONTROLLER;
    } else if (!state.bHeld && HELD_BY_CONTROLLER == m_run.eHeld) {
        m_run.eHeld = HELD_NOT;
    }
}

void JobRun::finish(const GuardState& state)
{
    const bool bStopped = m_run.bStopped || "operator" == m_run.strTrip;
    const char* const pResult = m_run.bDone ? "done" : bStopped ? "stopped" : "tripped";
    const std::string strReason = m_run.bDone ? "" : !state.bPresent ? "guard gone" : m_run.strTrip;
    if (m_run.bDone) {
        m_run.u64Line = m_run.pProfile->getLines();
    }
    m_last = makeLast(pResult, strReason);
    m_journal.add("station", "job " + m_run.strName + " " + pResult + " behind line " +
                                 m_last["line"].dump() + " of " + m_last["lines"].dump() +
                                 (strReason.empty() ? "" : ": " + strReason));
    const bool bDone = m_run.bDone;
    m_run = {};
    JobRecord{m_last, false, {}}.write();
    ArmUse::getInstance().change(ARM_JOB_END);
    (void)m_end.add([this, bDone] { tidyUp(bDone); }); // there is room: one job, one end
}

/** The print service would send the line that was refused again and again. */
void JobRun::tidyUp(bool bDone)
{
    PrintService& service = PrintService::getInstance();
    const auto isBusy = [&service] {
        const PRINT_STATE_E eState = service.getState();
        return PRINT_STATE_PRINTING == eState || PRINT_STATE_PAUSED == eState;
    };
    for (int i = 0; bDone && i < END_STEPS && isBusy(); ++i) {
        sleepFor(END_STEP);
    }
    if (isBusy()) {
        (void)service.stopPrint(); // returns 0
    }
    (void)unlink(PRINT_FILE);
    ArmUse::getInstance().end();
}

void JobRun::look()
{
    bool bLost = false;
    {
        const MutexGuard guard(m_mtx);
        if (!m_run.bThere) {
            return;
        }
        const uint64_t u64NowMs = monotonicMs();
        if (HELD_NOT == m_run.eHeld) {
            m_run.dSeconds += static_cast<double>(u64NowMs - m_run.u64SeenMs) / 1000;
        }
        m_run.u64SeenMs = u64NowMs;
        if (u64NowMs - m_u64RecordMs >= RECORD_MS) {
            m_u64RecordMs = u64NowMs;
            JobRecord{makeLast("interrupted", ""), true, m_run.place}.write();
        }
        bLost = m_run.bFollowed && !m_run.bUnattended && !m_pictures.isPresent() &&
                (HELD_NOT == m_run.eHeld || HELD_BY_CONTROLLER == m_run.eHeld);
    }
    if (!bLost) {
        return;
    }
    try {
        hold(HELD_BY_CAMERA);
        m_journal.add("station", "no picture for 2 s: the job is held");
    } catch (const ApiProblem&) {
        // Its last line is through, or it has just ended; else the next look tries again.
    }
}

json JobRun::describe() const
{
    const MutexGuard guard(m_mtx);
    if (!m_run.bThere) {
        return nullptr;
    }
    static const char* const NAMES[] = {nullptr, "operator", "camera", "controller"};
    const double dShare = m_run.pProfile->getShare(static_cast<size_t>(m_run.u64Line));
    // By the plan at first; by what it has taken so far once that says something.
    const double dPlanned = m_run.pProfile->getSeconds() * dShare;
    const double dPace = (dPlanned > 10) ? m_run.dSeconds / dPlanned : 1;
    const uint64_t u64NowMs = monotonicMs();
    const char* const pHeld = NAMES[m_run.eHeld];
    return {
        {"name", m_run.strName},
        {"sha256", m_run.strSum},
        {"size", m_run.u64Size},
        {"lines", m_run.getLines()},
        {"line", m_run.place.toFile(m_run.u64Line)},
        {"begun_at", m_run.place.u64Skipped + 1},
        {"percent", round1(100 * dShare)},
        {"seconds", round1(m_run.dSeconds)},
        {"seconds_left", round1(m_run.pProfile->getSeconds() * (1 - dShare) * dPace)},
        {"status", (nullptr == pHeld) ? "running" : "held"},
        {"held_by", (nullptr == pHeld) ? json(nullptr) : json(pHeld)},
        {"unattended", m_run.bUnattended},
        {"started", m_run.strStarted},
        {"lease_ms", LEASE_MS},
        {"lease_left_ms", (u64NowMs < m_run.u64LeaseEndMs) ? m_run.u64LeaseEndMs - u64NowMs : 0}};
}

json JobRun::describeLast() const
{
    const MutexGuard guard(m_mtx);
    return m_last;
}

bool JobRun::isRunning(const std::string& strName) const
{
    const MutexGuard guard(m_mtx);
    return m_run.bThere && m_run.strName == strName;
}
