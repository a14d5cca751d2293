// The guard at work: the interlock between the ports, the operator's socket and the clock.
#include "GuardWorker.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <utility>

#include <fcntl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "DescriptorMessage.h"
#include "GrblLanguage.h"
#include "KestrelLanguage.h"
#include "NoticeLine.h"

static const int64_t MS = 1000;
static const int64_t BEAT = 200 * MS;
static const int64_t LOOK_AGAIN = 25 * MS; // for a port that is not there: the beam may be on
static const int64_t END_TIME = 1500 * MS; // two times that the beam is told off

int64_t GuardWorker::nowUs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

std::unique_ptr<ILanguage> GuardWorker::makeLanguage(const Configuration& configuration)
{
    if (configuration.bGrbl) {
        return std::make_unique<GrblLanguage>(configuration.strPilotOn, configuration.strPilotOff);
    }
    return std::make_unique<KestrelLanguage>();
}

GuardWorker::GuardWorker(const Configuration& configuration, std::string strLastPort, int nBeatFd)
    : m_configuration(configuration), m_strLastPort(std::move(strLastPort)), m_nBeatFd(nBeatFd),
      m_pLanguage(makeLanguage(configuration)), m_relay(STDOUT_FILENO, nBeatFd),
      m_journal(m_relay.getFd()), m_port(configuration.strPort),
      m_resetPin(configuration.strResetLine), m_servicePort(configuration.strLink),
      m_operator([this](OperatorSocket::Client& client, const std::string& strLine) {
          return onRequest(client, strLine);
      }),
      m_interlock(*m_pLanguage, configuration.limits, *this, configuration.bHoming)
{
    m_vecPoll.reserve(OperatorSocket::MAX_CLIENTS + 4);
}

GuardWorker::~GuardWorker()
{
    if (m_nSignalFd >= 0) {
        close(m_nSignalFd);
    }
}

/** @return how it has ended already, or nothing: it works */
std::optional<WORKER_E> GuardWorker::begin()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int nSignal : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&signals, nSignal);
    }
    m_nSignalFd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    const PORT_E ePort = m_port.open();
    if (PORT_TAKEN == ePort) {
        return refuse(WORKER_REFUSED, "another guard has " + m_port.getPath());
    }
    if (PORT_OPEN == ePort) { // first of all
        showPort();
        m_interlock.onPortUp(nowUs());
        keepLastPort();
    }
    if (m_nSignalFd < 0 || m_relay.getFd() < 0) {
        return refuse(WORKER_NOT_SEEN, std::string("no signals or no journal: ") + strerror(errno));
    }
    std::string strError;
    if (const GROUP_E eGroup = m_servicePort.setGroup(m_configuration.strServiceGroup, strError);
        GROUP_FOUND != eGroup) {
        return refuse((GROUP_UNKNOWN == eGroup) ? WORKER_REFUSED : WORKER_NOT_SEEN, strError);
    }
    switch (m_operator.open(m_configuration.strSocket, m_configuration.strGroup, strError)) {
    case SOCKET_OPEN:
        break;
    case SOCKET_REFUSED:
        return refuse(WORKER_REFUSED, strError);
    case SOCKET_FAILED:
        return refuse(WORKER_NOT_SEEN, strError);
    }
    if (!m_servicePort.renew()) {
        return refuse(WORKER_NOT_SEEN, m_configuration.strLink + ": " + strerror(errno));
    }
    if (!m_resetPin.prepare()) {
        m_journal.write(std::string("NO RESET LINE: ") + strerror(errno));
    } else if (m_resetPin.isHeld()) {
        m_interlock.noteResetHeld();
        m_journal.write("reset line is held low");
    }
    tellPortError();
    if (!m_configuration.bLease) {
        m_journal.write("JOBS RUN WITHOUT A LEASE");
    }
    if (!m_configuration.bHoming) {
        m_journal.write("THE ARM IS NOT HOMED: THE BOX IS WHERE THE CONTROLLER COUNTS FROM");
    }
    return std::nullopt;
}

WORKER_E GuardWorker::refuse(WORKER_E eHow, const std::string& strText)
{
    fprintf(stderr, "kestrel-guard: %s\n", strText.c_str());
    return eHow;
}

WORKER_E GuardWorker::run()
{
    if (const std::optional<WORKER_E> eEnded = begin()) {
        return *eEnded;
    }
    for (;;) {
        beat();
        if (m_bAnew) {
            return WORKER_ANEW;
        }
        if (m_bEnding && isEnded()) {
            const bool bDark = m_interlock.isBeamSeenOff() || m_port.getFd() < 0;
            return (bDark && !m_bOrphan) ? WORKER_DARK : WORKER_NOT_SEEN;
        }
        if (m_port.isBroken()) {
            losePort();
        }
        if (m_port.getFd() < 0 && nowUs() >= m_s64OpenUs) {
            openPort();
        }
        if (m_bUnread) {
            m_interlock.onServiceGone(nowUs());
        }
        if (std::exchange(m_bUnread, false) ||
            (m_servicePort.getFd() < 0 && nowUs() >= m_s64TerminalUs)) {
            renewTerminal();
        }
        copyOn();
        waitAndServe();
        // What has come by now counts, however late this process is.
        if (const int64_t s64NowUs = nowUs(); m_interlock.getDeadline() <= s64NowUs) {
            m_interlock.onTime(s64NowUs);
        }
    }
}

bool GuardWorker::isEnded() const
{
    return m_interlock.isBeamSeenOff() || m_port.getFd() < 0 || nowUs() >= m_s64EndUs;
}

void GuardWorker::openPort()
{
    m_s64OpenUs = nowUs() + LOOK_AGAIN;
    if (PORT_OPEN == m_port.open()) {
        showPort();
        m_interlock.onPortUp(nowUs());
        m_journal.write("controller plugged in");
        keepLastPort();
    }
    tellPortError();
}

/** Once for as long as it stays the same. */
void GuardWorker::tellPortError()
{
    const int nError = m_port.getError();
    if (0 != nError && nError != m_nPortError) {
        m_journal.write("no controller: " + m_port.getPath() + ": " + strerror(nError));
    }
    m_nPortError = nError;
}

void GuardWorker::losePort()
{
    m_port.close();
    m_s64OpenUs = nowUs() + LOOK_AGAIN;
    m_interlock.onPortLost(nowUs());
    m_journal.write("controller gone");
}

void GuardWorker::keepLastPort()
{
    std::ofstream file(m_strLastPort);
    file << m_configuration.strPort << "\n";
    if (!file.flush()) {
        m_journal.write("the port's path is not kept: " + m_strLastPort);
    }
}

void GuardWorker::renewTerminal()
{
    m_s64TerminalUs = nowUs() + LOOK_AGAIN;
    const bool bFormer = m_servicePort.getFd() >= 0;
    if (!m_servicePort.renew() && bFormer) {
        m_journal.write(std::string("no terminal for the service: ") + strerror(errno));
    }
}

int64_t GuardWorker::getWaitMs() const
{
    if (m_job.isUnderWay() || m_image.isUnderWay()) {
        return 0;
    }
    int64_t s64DueUs = std::min(m_s64BeatUs, m_interlock.getDeadline());
    if (m_port.getFd() < 0) {
        s64DueUs = std::min(s64DueUs, m_s64OpenUs);
    }
    if (m_servicePort.getFd() < 0) {
        s64DueUs = std::min(s64DueUs, m_s64TerminalUs);
    }
    return std::max<int64_t>(0, (s64DueUs - nowUs() + MS - 1) / MS);
}

void GuardWorker::waitAndServe()
{
    m_vecPoll.clear();
    const bool bOut = m_port.isPending() || m_interlock.wantsRoom();
    m_vecPoll.push_back({m_port.getFd(), static_cast<short>(POLLIN | (bOut ? POLLOUT : 0)), 0});
    m_vecPoll.push_back({m_servicePort.getFd(), POLLIN, 0});
    m_vecPoll.push_back({m_nSignalFd, POLLIN, 0});
    m_operator.addTo(m_vecPoll);
    const int nReady = poll(m_vecPoll.data(), m_vecPoll.size(), static_cast<int>(getWaitMs()));
    if (nReady < 0 && EINTR != errno) { // nothing blocks: look at all of them
        for (pollfd& each : m_vecPoll) {
            each.revents = (each.fd >= 0) ? each.events : static_cast<short>(0);
        }
    } else if (nReady <= 0) {
        return;
    }
    if (0 != m_vecPoll[0].revents) { // the controller first: an alarm is older than the next line
        if (0 != (m_vecPoll[0].revents & POLLOUT)) {
            m_port.flush();
            if (!m_port.isPending() && m_interlock.wantsRoom()) {
                m_interlock.onPortRoom(nowUs());
            }
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
        losePort();
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
        renewTerminal();
    }
}

void GuardWorker::serveSignal()
{
    signalfd_siginfo info{};
    if (static_cast<ssize_t>(sizeof(info)) != read(m_nSignalFd, &info, sizeof(info))) {
        return;
    }
    if (SIGHUP != info.ssi_signo) {
        end();
        return;
    }
    Configuration configuration;
    std::string strError;
    if (LEVEL_DARK != m_interlock.getLevel() || m_interlock.isSendingFirmware()) {
        m_journal.write("configuration not read anew: only in dark");
    } else if (!readConfiguration(m_configuration.strFile, configuration, strError)) {
        m_journal.write("configuration not read anew: " + strError);
    } else if (m_interlock.isResetHeld() &&
               configuration.strResetLine != m_configuration.strResetLine) {
        // Nobody would let the former one go.
        m_journal.write("configuration not read anew: the reset line is held low");
    } else {
        m_journal.write("configuration read anew");
        m_bAnew = true;
    }
}

void GuardWorker::end()
{
    m_interlock.shutdown(nowUs());
    m_bEnding = true;
    m_s64EndUs = nowUs() + END_TIME;
}

void GuardWorker::beat()
{
    const int64_t s64NowUs = nowUs();
    if (s64NowUs < m_s64BeatUs) {
        return;
    }
    m_s64BeatUs = s64NowUs + BEAT;
    const bool bPort = !m_bShown && m_port.getFd() >= 0;
    const bool bSent = sendBeat(bPort);
    m_bShown = m_bShown || (bPort && bSent);
    if (!bSent && EPIPE == errno && !m_bEnding) { // full: it is stopped
        m_journal.write("the parent is gone");
        m_bOrphan = true;
        end();
    }
}

/** @param bPort  with the port's descriptor */
bool GuardWorker::sendBeat(bool bPort) const
{
    return 1 == sendWithDescriptor(m_nBeatFd, "b", 1, bPort ? m_port.getFd() : -1, MSG_NOSIGNAL);
}

/** With the next beat, which is due now. */
void GuardWorker::showPort()
{
    m_bShown = false;
    m_s64BeatUs = 0;
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
        m_bUnread = true; // half an answer would be read as part of the next
        m_journal.write("the service does not read its answers");
    }
}

void GuardWorker::holdReset(bool bLow)
{
    if (!m_resetPin.isThere()) {
        return;
    }
    const bool bDone = m_resetPin.hold(bLow);
    const char* const pError = strerror(errno);
    m_journal.write(bDone ? (bLow ? "reset line held low" : "reset line let go")
                          : (std::string("RESET LINE NOT DRIVEN: ") + pError).c_str());
}

void GuardWorker::tell(NOTICE_E eNotice, int nDetail)
{
    if (NOTICE_TRIP == eNotice) {
        m_eTrip = static_cast<TRIP_E>(nDetail); // told with the detail that follows
        return;
    }
    const NoticeLine line(eNotice, nDetail, m_eTrip);
    if (NOTICE_DETAIL == eNotice) {
        m_eTrip = TRIP_NONE;
    }
    m_journal.write(line.getText());
    m_operator.publish(line.getEvent());
}
