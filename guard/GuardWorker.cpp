// The guard at work: the interlock between the ports, the operator's socket and the clock.
#include "GuardWorker.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "GrblLanguage.h"
#include "KestrelLanguage.h"
#include "NoticeText.h"

static const int64_t MS = 1000;
static const int64_t BEAT = 200 * MS;
static const int64_t LOOK_AGAIN = 25 * MS; // for a port that is not there: the beam may be on
static const int64_t END_TIME = 1500 * MS; // two times that the beam is told off

using nlohmann::json;

namespace {

int64_t nowUs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

std::string fail(const std::string& strText)
{
    return json{{"ok", false}, {"error", strText}}.dump();
}

std::string tellWish(WISH_E eWish)
{
    return (WISH_DONE == eWish) ? json{{"ok", true}}.dump() : fail(getWishText(eWish));
}

} // namespace

std::unique_ptr<ILanguage> GuardWorker::makeLanguage(const Configuration& configuration)
{
    if (configuration.bGrbl) {
        return std::make_unique<GrblLanguage>(configuration.strPilotOn, configuration.strPilotOff);
    }
    return std::make_unique<KestrelLanguage>();
}

GuardWorker::GuardWorker(const Configuration& configuration, int nBeatFd)
    : m_configuration(configuration), m_nBeatFd(nBeatFd), m_pLanguage(makeLanguage(configuration)),
      m_journal(STDOUT_FILENO), m_port(configuration.strPort),
      m_servicePort(configuration.strLink, configuration.strServiceGroup),
      m_operator([this](OperatorSocket::Client& client, const std::string& strLine) {
          return onRequest(client, strLine);
      }),
      m_interlock(*m_pLanguage, configuration.limits, *this)
{
    m_vecPoll.reserve(OperatorSocket::MAX_CLIENTS + 4);
}

GuardWorker::~GuardWorker()
{
    if (m_nSignalFd >= 0) {
        close(m_nSignalFd);
    }
}

bool GuardWorker::begin()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int nSignal : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&signals, nSignal);
    }
    m_nSignalFd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    const PORT_E ePort = m_port.open();
    if (PORT_TAKEN == ePort) {
        fprintf(stderr, "kestrel-guard: another guard has %s\n", m_port.getPath().c_str());
        return false;
    }
    if (PORT_OPEN == ePort) { // first of all
        m_interlock.onPortUp(nowUs());
    }
    std::string strError;
    if (!m_operator.open(m_configuration.strSocket, m_configuration.strGroup, strError)) {
        fprintf(stderr, "kestrel-guard: %s\n", strError.c_str());
        return false;
    }
    if (!m_servicePort.renew()) {
        fprintf(stderr, "kestrel-guard: %s: %s\n", m_configuration.strLink.c_str(),
                strerror(errno));
        return false;
    }
    if (!m_configuration.bLease) {
        m_journal.write("JOBS RUN WITHOUT A LEASE");
    }
    return m_nSignalFd >= 0;
}

WORKER_E GuardWorker::run()
{
    if (!begin()) {
        return WORKER_REFUSED;
    }
    for (;;) {
        const int64_t s64NowUs = nowUs();
        beat();
        if (m_bAnew) {
            return WORKER_ANEW;
        }
        if (m_bEnding && (m_interlock.isBeamSeenOff() || s64NowUs >= m_s64EndUs)) {
            return m_interlock.isBeamSeenOff() ? WORKER_DARK : WORKER_NOT_SEEN;
        }
        if (m_port.getFd() < 0 && s64NowUs >= m_s64OpenUs) {
            openPort();
        }
        if (m_interlock.getDeadline() <= s64NowUs) {
            m_interlock.onTime(s64NowUs);
        }
        waitAndServe();
    }
}

void GuardWorker::openPort()
{
    m_s64OpenUs = nowUs() + LOOK_AGAIN;
    if (PORT_OPEN == m_port.open()) {
        m_interlock.onPortUp(nowUs());
        m_journal.write("controller plugged in");
    }
}

int64_t GuardWorker::getWaitMs() const
{
    const int64_t s64NowUs = nowUs();
    int64_t s64DueUs = std::min(m_s64BeatUs, m_interlock.getDeadline());
    if (m_port.getFd() < 0) {
        s64DueUs = std::min(s64DueUs, m_s64OpenUs);
    }
    return std::max<int64_t>(0, (s64DueUs - s64NowUs + MS - 1) / MS);
}

void GuardWorker::waitAndServe()
{
    m_vecPoll.clear();
    const auto nOut = static_cast<short>(m_port.isPending() ? POLLOUT : 0);
    m_vecPoll.push_back({m_port.getFd(), static_cast<short>(POLLIN | nOut), 0});
    m_vecPoll.push_back({m_servicePort.getFd(), POLLIN, 0});
    m_vecPoll.push_back({m_nSignalFd, POLLIN, 0});
    m_operator.addTo(m_vecPoll);
    if (poll(m_vecPoll.data(), m_vecPoll.size(), static_cast<int>(getWaitMs())) <= 0) {
        return;
    }
    if (0 != m_vecPoll[0].revents) { // the controller first: an alarm is older than the next line
        if (0 != (m_vecPoll[0].revents & POLLOUT)) {
            m_port.flush();
        }
        serveController();
    }
    if (0 != m_vecPoll[2].revents) {
        serveSignal();
    }
    if (0 != m_vecPoll[1].revents) {
        serveService();
    }
    m_operator.serve(m_vecPoll);
}

void GuardWorker::serveController()
{
    std::array<char, 512> acData{};
    const int nRead = m_port.read(acData.data(), acData.size());
    if (nRead > 0) {
        m_interlock.onControllerBytes(acData.data(), static_cast<size_t>(nRead), nowUs());
    } else if (nRead < 0) {
        m_port.close();
        m_s64OpenUs = nowUs() + LOOK_AGAIN;
        m_interlock.onPortLost(nowUs());
        m_journal.write("controller gone");
    }
}

void GuardWorker::serveService()
{
    std::array<char, 512> acData{};
    const int nRead = m_servicePort.read(acData.data(), acData.size());
    if (nRead > 0) {
        m_interlock.onServiceBytes(acData.data(), static_cast<size_t>(nRead), nowUs());
    } else if (nRead < 0) {
        m_interlock.onServiceGone(nowUs());
        m_journal.write("service gone");
        if (!m_servicePort.renew()) {
            m_journal.write(std::string("no terminal for the service: ") + strerror(errno));
        }
    }
}

void GuardWorker::serveSignal()
{
    signalfd_siginfo info{};
    if (static_cast<ssize_t>(sizeof(info)) != read(m_nSignalFd, &info, sizeof(info))) {
        return;
    }
    if (SIGHUP == info.ssi_signo) {
        Configuration configuration;
        std::string strError;
        if (LEVEL_DARK != m_interlock.getLevel()) {
            m_journal.write("configuration not read anew: only in dark");
        } else if (!readConfiguration(m_configuration.strFile, configuration, strError)) {
            m_journal.write("configuration not read anew: " + strError);
        } else {
            m_journal.write("configuration read anew");
            m_bAnew = true;
        }
        return;
    }
    m_interlock.shutdown(nowUs());
    m_bEnding = true;
    m_s64EndUs = nowUs() + END_TIME;
}

void GuardWorker::beat()
{
    const int64_t s64NowUs = nowUs();
    if (s64NowUs >= m_s64BeatUs) {
        m_s64BeatUs = s64NowUs + BEAT;
        (void)!write(m_nBeatFd, "b", 1); // full or broken: the parent is stopped or gone
    }
}

void GuardWorker::toController(const char* pBytes, size_t uLength)
{
    if (!m_port.write(pBytes, uLength)) {
        m_journal.write("the controller's port is full");
    }
}

void GuardWorker::cutBeam(const char* pBytes, size_t uLength)
{
    m_port.cut(pBytes, uLength);
}

void GuardWorker::toService(const char* pBytes, size_t uLength)
{
    if (!m_servicePort.write(pBytes, uLength)) {
        m_journal.write("the service does not read its answers");
    }
}

void GuardWorker::holdReset(bool bLow)
{
    if (!m_configuration.strResetLine.empty()) {
        setResetLine(bLow ? "0" : "1");
        m_journal.write(bLow ? "reset line held low" : "reset line let go");
    }
}

void GuardWorker::setResetLine(const char* pValue)
{
    const int nFd = ::open(m_configuration.strResetLine.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (nFd < 0 || 1 != ::write(nFd, pValue, 1)) {
        m_journal.write(m_configuration.strResetLine + ": " + strerror(errno));
    }
    if (nFd >= 0) {
        ::close(nFd);
    }
}

void GuardWorker::tell(NOTICE_E eNotice, int nDetail)
{
    if (NOTICE_TRIP == eNotice) {
        m_eTrip = static_cast<TRIP_E>(nDetail); // told with the detail that follows
        return;
    }
    json event{{"event", getNoticeName(eNotice)}};
    std::string strText = getNoticeName(eNotice);
    if (NOTICE_LEVEL == eNotice) {
        event["level"] = getLevelName(static_cast<LEVEL_E>(nDetail));
        strText += std::string(" ") + getLevelName(static_cast<LEVEL_E>(nDetail));
    } else if (NOTICE_DETAIL == eNotice) {
        const bool bLine = TRIP_LINE_BAD == m_eTrip || TRIP_NONE == m_eTrip;
        event["event"] = (TRIP_NONE == m_eTrip) ? "line" : "trip";
        strText = (TRIP_NONE == m_eTrip) ? "line not passed"
                                         : std::string("trip: ") + getTripName(m_eTrip);
        if (TRIP_NONE != m_eTrip) {
            event["reason"] = getTripName(m_eTrip);
        }
        if (bLine) {
            event["fault"] = getLineFaultName(static_cast<LINE_FAULT_E>(nDetail));
            strText += std::string(", ") + getLineFaultName(static_cast<LINE_FAULT_E>(nDetail));
        } else if (0 != nDetail) {
            event["code"] = nDetail;
            strText += " " + std::to_string(nDetail);
        }
        m_eTrip = TRIP_NONE;
    } else if (0 != nDetail) {
        event["detail"] = nDetail;
        strText += " " + std::to_string(nDetail);
    }
    m_journal.write(strText);
    m_operator.publish(event.dump());
}

std::string GuardWorker::describeState() const
{
    return json{{"ok", true},
                {"level", getLevelName(m_interlock.getLevel())},
                {"controller", m_port.getFd() >= 0},
                {"beam_seen_off", m_interlock.isBeamSeenOff()},
                {"homed", m_interlock.isHomed()},
                {"paused", m_interlock.isPaused()},
                {"line", m_interlock.getJobLine()},
                {"job", m_job.getSum()}}
        .dump();
}

std::string GuardWorker::openJob(OperatorSocket::Client& client, int64_t s64LeaseMs)
{
    if (client.nPassed < 0) {
        return fail("no file came with the request");
    }
    const int nFd = std::exchange(client.nPassed, -1);
    std::string strError;
    bool bTaken = false;
    if (LEVEL_JOB == m_interlock.getLevel()) { // its text is in use
        strError = getWishText(WISH_LEVEL);
    } else {
        bTaken = m_job.take(nFd, strError);
    }
    ::close(nFd);
    if (!bTaken) {
        return fail(strError);
    }
    if (m_configuration.bLease && s64LeaseMs <= 0) {
        return fail(getWishText(WISH_LEASE));
    }
    const WISH_E eWish = m_interlock.openJob(m_job.getText(), m_job.getSize(),
                                             m_configuration.bLease ? s64LeaseMs * MS : 0, nowUs());
    if (WISH_DONE != eWish) {
        return fail(getWishText(eWish));
    }
    m_uJobOwner = client.uNumber;
    m_journal.write("job opened: " + std::to_string(m_job.getSize()) + " bytes, SHA-256 " +
                    m_job.getSum());
    return json{{"ok", true}, {"size", m_job.getSize()}, {"sha256", m_job.getSum()}}.dump();
}

std::string GuardWorker::onRequest(OperatorSocket::Client& client, const std::string& strLine)
{
    const json request = json::parse(strLine, nullptr, false);
    if (!request.is_object() || !request.contains("do") || !request["do"].is_string()) {
        return fail("no request: {\"do\": ...}");
    }
    const std::string strDo = request["do"];
    if ("state" == strDo) {
        return describeState();
    }
    if ("lease" == strDo) {
        return (client.uNumber == m_uJobOwner) ? tellWish(m_interlock.renewLease(nowUs()))
                                               : fail("the lease is another's");
    }
    if ("events" == strDo) {
        client.bEvents = true;
        return json{{"ok", true}}.dump();
    }
    m_journal.write("user " + std::to_string(client.uUser) + ": " + strDo);
    if ("off" == strDo || "stop" == strDo) {
        m_interlock.off(nowUs());
        return tellWish(WISH_DONE);
    }
    if ("motion" == strDo) {
        return tellWish(m_interlock.raise(nowUs()));
    }
    if ("dark" == strDo) {
        return tellWish(m_interlock.drop(nowUs()));
    }
    if ("home" == strDo) {
        return tellWish(m_interlock.home(nowUs()));
    }
    if ("unlock" == strDo) {
        return tellWish(m_interlock.unlock(nowUs()));
    }
    if ("pause" == strDo) {
        return tellWish(m_interlock.pause(nowUs()));
    }
    if ("resume" == strDo) {
        return tellWish(m_interlock.resume(nowUs()));
    }
    if ("reset" == strDo) {
        m_interlock.clearReset();
        return tellWish(WISH_DONE);
    }
    if ("job" == strDo) {
        const auto lease = request.find("lease");
        const bool bNumber = request.end() != lease && lease->is_number_integer();
        const int64_t s64LeaseMs = bNumber ? lease->get<int64_t>() : 0;
        return (s64LeaseMs > 10000 || s64LeaseMs < 0) ? fail(getWishText(WISH_LEASE))
                                                      : openJob(client, s64LeaseMs);
    }
    return fail("unknown request: " + strDo);
}
