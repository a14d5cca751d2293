// Stays with a job that runs: its lease, its progress, the person's keys.
#include "JobMinder.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "JsonFields.h"
#include "Output.h"
#include "StateText.h"

static const auto RENEW_EVERY = std::chrono::milliseconds(1000); // shown as often
static const int RENEWALS_A_LEASE = 4;
static const int ACTION_MS = 10000;
static const char* const CLEAR_LINE = "\r\x1b[K";

static sigset_t endSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

static int openSignals()
{
    const sigset_t set = endSignals();
    return ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

void JobMinder::blockSignals()
{
    const sigset_t set = endSignals();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN); // of an output that nobody reads any more; show() finds it lost
}

JobMinder::JobMinder(const StationClient& client, BeamOff beamOff, const nlohmann::json& started,
                     bool bJson)
    : m_client(client), m_beamOff(std::move(beamOff)),
      m_lease({{"lease", textOf(started, "lease")}}),
      m_leaseTime(static_cast<int64_t>(numberOf(started, "lease_ms"))), m_bJson(bJson),
      m_bBar(!bJson && 1 == ::isatty(STDOUT_FILENO)), m_signals(openSignals()),
      m_wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), m_renewal(m_wake.get()),
      m_action(m_wake.get()), m_renewed(Clock::now()), m_next(m_renewed)
{
}

EXIT_STATUS_E JobMinder::run()
{
    while (!m_bEnded) {
        if (!m_renewal.isUnderWay() && Clock::now() >= m_next) {
            m_renewal.post(m_client, "/job/lease", m_lease,
                           static_cast<int>(m_leaseTime.count() / 2));
        }
        wait();
        takeSignals();
        for (int nKey = m_keys.take(); Keys::NONE != nKey && !m_bOff; nKey = m_keys.take()) {
            takeKey(nKey);
        }
        takeAnswers();
    }
    return m_eStatus;
}

void JobMinder::wait()
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(m_next - Clock::now());
    const int nLeftMs = static_cast<int>(std::max<int64_t>(0, left.count())) + 1;
    std::array<pollfd, 3> aEntry{{{m_signals.get(), POLLIN, 0},
                                  {m_wake.get(), POLLIN, 0},
                                  {m_bOff ? -1 : m_keys.getFd(), POLLIN, 0}}};
    // Whatever woke it, everything is looked at.
    (void)::poll(aEntry.data(), aEntry.size(), m_renewal.isUnderWay() ? -1 : nLeftMs);
    uint64_t u64Ignored = 0;
    (void)!::read(m_wake.get(), &u64Ignored, sizeof(u64Ignored));
}

void JobMinder::takeSignals()
{
    signalfd_siginfo info{};
    while (::read(m_signals.get(), &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
        turnOff(SIGHUP == static_cast<int>(info.ssi_signo) ? "the terminal is lost"
                                                           : "interrupted");
    }
}

void JobMinder::takeKey(int nKey)
{
    if (Keys::LOST == nKey) {
        turnOff("the terminal is lost");
    } else if ('s' == nKey) {
        m_bStopDue = true;
    } else if (' ' == nKey && !m_action.isUnderWay()) { // one after the other
        m_action.post(m_client, m_bHeld ? "/job/resume" : "/job/pause", nlohmann::json::object(),
                      ACTION_MS);
    }
}

void JobMinder::takeAnswers()
{
    StationAnswer answer;
    if (m_action.take(answer)) {
        if (answer.isGood()) {
            takeState(answer.json);
        } else if ("no-job" != answer.getProblem()) { // then the renewal tells how it ended
            tell(answer.strError);
        }
    }
    if (m_renewal.take(answer)) {
        takeLease(answer);
    }
    if (m_bStopDue && !m_action.isUnderWay() && !m_bEnded) {
        m_bStopDue = false;
        m_action.post(m_client, "/job/stop", nlohmann::json::object(), ACTION_MS);
    }
}

void JobMinder::takeLease(const StationAnswer& answer)
{
    const auto every = std::min(RENEW_EVERY, m_leaseTime / RENEWALS_A_LEASE);
    m_next = Clock::now() + every;
    if (answer.isGood()) {
        m_renewed = Clock::now();
        m_bLost = false;
        takeState(answer.json);
    } else if (0 != answer.nStatus) { // no such job any more, or no longer ours
        takeState(m_client.get("/state").json);
        if (!m_bEnded) {
            tell(answer.strError);
            end(STATUS_REFUSED);
        }
    } else if (Clock::now() - m_renewed > m_leaseTime) { // the guard has ended the job by now
        turnOff("the station does not answer");
        end(STATUS_NO_ANSWER);
    } else if (!m_bLost) {
        m_bLost = true;
        tell(answer.strError + "; trying again");
    }
}

void JobMinder::takeState(const nlohmann::json& state)
{
    const nlohmann::json job = fieldOf(state, "job");
    if (job.is_object()) {
        m_bHeld = "held" == textOf(job, "status");
        show(job);
        return;
    }
    const nlohmann::json last = fieldOf(state, "last_job");
    if (m_bEnded || !state.is_object()) {
        return;
    }
    if (m_bJson) {
        (void)print(last.dump() + "\n"); // the status tells as much
    } else {
        (void)print((m_bBar ? CLEAR_LINE : "") + endToText(last) + "\n");
    }
    m_strShown.clear();
    end(m_bOff || "done" != textOf(last, "result") ? STATUS_REFUSED : STATUS_DONE);
}

void JobMinder::turnOff(const char* pWhy)
{
    if (std::exchange(m_bOff, true)) {
        return;
    }
    const BeamOff::Result result = m_beamOff.turnOff();
    if (!result.bTaken) {
        m_bOff = false; // may be asked again
        tell(std::string(pWhy) + ", and nobody turned the beam off: " + result.strStation + "; " +
             result.strGuard);
        return;
    }
    tell(std::string(pWhy) + ": beam off by the " + result.pBy +
         (result.bSeenOff ? ", seen off" : ", NOT seen off yet"));
    m_next = Clock::now(); // to hear of the job's end
    if (std::string("guard") == result.pBy) {
        end(STATUS_NO_ANSWER);
    }
}

void JobMinder::end(EXIT_STATUS_E eStatus)
{
    m_bEnded = true;
    m_eStatus = eStatus;
}

void JobMinder::show(const nlohmann::json& job)
{
    const std::string strLine = m_bJson ? job.dump() : jobToLine(job);
    bool bPrinted = true;
    if (m_bBar) {
        bPrinted = print(CLEAR_LINE + strLine);
    } else if (strLine != m_strShown) {
        bPrinted = print(strLine + "\n");
    }
    m_strShown = strLine;
    if (!bPrinted && (EPIPE == errno || EIO == errno)) { // a full disk is no reason
        turnOff("nobody reads the output any more");
    }
}

void JobMinder::tell(const std::string& strText)
{
    if (m_bBar && !m_strShown.empty()) {
        (void)print("\n");
        m_strShown.clear();
    }
    complain(strText);
}
