// The station: what of the arm is there, what goes on, and what the operator wants.
#include "Station.h"

#include <utility>

#include "ApiProblem.h"
#include "GuardProblem.h"
#include "JournalText.h"
#include "NoticeText.h"
#include "PrintService.h"
#include "Time.h"
#include "VideoProcessor.h"

static const Time STEP(0, 50000);          // between two looks of the thread
static const uint64_t WAKE_MS = 1000;      // watchers are woken so often, to see whether they go on
static const uint64_t REFRESH_MS = 2000;   // for the guard to be looked at
static const uint64_t OFF_REFRESH_MS = 50; // beam off is answered within 100 ms
static const uint64_t HOME_MS = 60000;
static const uint64_t MEASURE_MS = 90000; // the print service waits for 68 s at most
static const uint64_t BUSY_MS = 3000;

using nlohmann::json;

Station::Station(const StationConfiguration& configuration) : m_configuration(configuration)
{
    readGuardConfiguration();
    m_pTerminal = std::make_unique<ArmTerminal>(m_guardConfiguration.strLink);
    m_pGuard = std::make_unique<GuardLink>(
        m_guardConfiguration.strSocket, [this](const json& event) { onGuardEvent(event); },
        [this](const GuardState& state) { onGuardState(state); });
    m_pStore = std::make_unique<JobStore>(m_strNoLimits.empty() ? &m_guardConfiguration : nullptr);
    m_pRun = std::make_unique<JobRun>(*m_pGuard, *m_pTerminal, m_pictures, m_journal);
    m_pRestart = std::make_unique<RestartOffer>(*m_pStore, *m_pRun);
    m_pReport = std::make_unique<StateReport>(
        StateReport::Sources{m_guardConfiguration, m_strNoLimits, m_pictures, *m_pTerminal,
                             *m_pGuard, *m_pRun, *m_pRestart, m_bAlarm});
    ArmUse::getInstance().setOpen(m_configuration.bOpenMeasure);
}

Station::~Station()
{
    stop();
}

void Station::readGuardConfiguration()
{
    if (!readConfiguration(m_configuration.strGuard, m_guardConfiguration, m_strNoLimits)) {
        m_guardConfiguration = {}; // of no meaning
    }
}

void Station::start()
{
    m_journal.add("station", "started");
    if (!m_strNoLimits.empty()) {
        m_journal.add("station", "the guard's configuration: " + m_strNoLimits);
    }
    m_pGuard->start();
    m_pThread = std::make_unique<Thread>(&Station::loop, this, "station", 0, 0, 0, true);
    (void)m_pThread->start(); // returns 0
}

void Station::stop()
{
    if (m_bEnd.exchange(true)) {
        return;
    }
    m_pThread.reset();
    const GuardState state = m_pGuard->getState();
    if (state.bPresent && "dark" != state.strLevel) {
        (void)m_pGuard->turnOff(); // the guard does it anyway when the terminal is closed in a job
    }
    if (m_pTerminal->isOpen()) { // closed by the destructor, when nobody asks any more
        (void)PrintService::getInstance().stopPrint(); // returns 0; its thread reads no more
    }
    while (ARM_MEASURE == ArmUse::getInstance().get()) {
        sleepFor(STEP); // its moves are refused now; without a camera it does not end
    }
    m_pGuard->stop();
    m_journal.add("station", "ended");
    m_board.wake();
}

int Station::loop()
{
    if (m_bEnd) {
        return 1;
    }
    const GuardState state = m_pGuard->getState();
    if (state.bPresent && !m_bDarkened) {
        m_bDarkened = true;
        if ("job" == state.strLevel) {
            (void)m_pGuard->turnOff(); // the guard does it by itself when it has seen the hang-up
        }
    }
    m_pTerminal->follow(state.bPresent);
    m_pRun->look();
    m_pRestart->look();
    updateReady();
    publish();
    sleepFor(STEP);
    return 0;
}

/** Whether the camera service's clients would find the arm ready, by what the guard told last. */
void Station::updateReady()
{
    const MutexGuard guard(m_mtxReady);
    const bool bMotion = "motion" == m_pGuard->getState().strLevel;
    ArmUse::getInstance().setReady(bMotion && m_pictures.isPresent());
}

/** At most every 200 ms: this is many watchers' work. */
void Station::publish()
{
    const json state = describe();
    json key = state;
    for (const char* const pVolatile : {"time"}) {
        key.erase(pVolatile);
    }
    key["camera"].erase("pictures");
    key["camera"].erase("age_ms");
    if (key["job"].is_object()) {
        key["job"].erase("seconds");
        key["job"].erase("seconds_left");
        key["job"].erase("lease_left_ms");
    }
    const uint64_t u64NowMs = monotonicMs();
    const uint64_t u64Id = m_journal.getLastId();
    const bool bWake = u64NowMs - m_u64WakeMs >= WAKE_MS || u64Id != m_u64ToldId;
    if (bWake) {
        m_u64WakeMs = u64NowMs;
        m_u64ToldId = u64Id;
    }
    m_board.put(state.dump(), key.dump(), bWake);
}

void Station::onGuardEvent(const json& event)
{
    const std::string strEvent = event.value("event", "");
    if ("homed" == strEvent) {
        m_bAlarm = false; // first: whoever waits for the count may look then
        ++m_u32Homed;
    }
    m_u32Refused += ("refused" == strEvent) ? 1 : 0;
    if ("trip" == strEvent) {
        const std::string strReason = event.value("reason", "");
        ++m_u32Trips;
        m_trips.add(strReason);
        m_bAlarm = m_bAlarm || "alarm" == strReason;
    }
    m_journal.add("guard", tellEvent(event));
    m_pRun->onGuardEvent(event);
}

void Station::onGuardState(const GuardState& state)
{
    if (m_bGuardSeen.exchange(state.bPresent) != state.bPresent) {
        m_journal.add("station", state.bPresent ? "the guard is there" : "the guard is gone");
    }
    m_pRun->onGuardState(state);
}

json Station::describe() const
{
    return m_pReport->describe();
}

json Station::describeAnew()
{
    (void)m_pGuard->refresh(REFRESH_MS);
    return describe();
}

json Station::startJob(const std::string& strName, bool bUnattended, size_t uLine)
{
    const RunnableJob job = m_pStore->getRunnable(strName, uLine);
    const std::string strLease = m_pRun->start(job, bUnattended, m_guardConfiguration);
    return {{"lease", strLease}, {"lease_ms", JobRun::LEASE_MS}, {"state", describeAnew()}};
}

/** Behind a reset the guard asks the controller for its settings, and is busy for a moment. */
void Station::ask(const json& request, int nFile)
{
    GuardLink::Answer answer = m_pGuard->ask(request, nFile);
    const uint64_t u64EndMs = monotonicMs() + BUSY_MS;
    while (GuardLink::Answer::REFUSED == answer.eResult &&
           getWishText(WISH_BUSY) == answer.strError && monotonicMs() < u64EndMs && !m_bEnd) {
        sleepFor(STEP);
        answer = m_pGuard->ask(request, nFile);
    }
    demandDone(answer);
}

void Station::turnOff()
{
    m_pRun->noteOff();
    const GuardLink::Answer answer = m_pGuard->turnOff(); // before it is noted
    m_journal.add("operator", "beam off");
    demandDone(answer);
    (void)m_pGuard->refresh(OFF_REFRESH_MS);
    updateReady();
}

void Station::setLevel(const std::string& strLevel)
{
    if (m_pGuard->refresh(REFRESH_MS).strLevel == strLevel) {
        return;
    }
    m_journal.add("operator", "level " + strLevel);
    ask({{"do", strLevel}});
    (void)m_pGuard->refresh(REFRESH_MS);
    updateReady();
}

void Station::demandMotion()
{
    const GuardState state = m_pGuard->refresh(REFRESH_MS);
    if (!state.bPresent) {
        throw ApiProblem("no-guard", "Nobody answers at " + m_guardConfiguration.strSocket + ".");
    }
    if ("motion" != state.strLevel) {
        throw ApiProblem("level", "The level is " + state.strLevel + ".");
    }
}

void Station::demandTerminal()
{
    if (!m_pTerminal->isOpen()) {
        throw ApiProblem("no-terminal", "The terminal is not open.");
    }
}

void Station::home()
{
    demandMotion();
    ArmUse::getInstance().awaitJobEnd();
    const ArmUser user(ARM_HOME);
    if (!user.hasBegun()) {
        throw ApiProblem("busy", "The arm is in use.");
    }
    const uint32_t u32Homed = m_u32Homed;
    m_journal.add("operator", "home");
    ask({{"do", "home"}});
    const uint64_t u64EndMs = monotonicMs() + HOME_MS;
    while (m_u32Homed == u32Homed) {
        const GuardState state = m_pGuard->refresh(REFRESH_MS);
        if (m_u32Homed != u32Homed) {
            break;
        }
        if (m_bEnd || "motion" != state.strLevel) {
            throw ApiProblem("stopped", "The level is not motion any more.");
        }
        if (monotonicMs() > u64EndMs) {
            throw ApiProblem("late", "The controller does not tell that it is homed.");
        }
        sleepFor(STEP); // the guard tells it to its link, which has no more to wait for
    }
}

void Station::judge(ArmTerminal::ANSWER_E eAnswer)
{
    if (ArmTerminal::ANSWER_OK == eAnswer) {
        return;
    }
    if ("motion" != m_pGuard->refresh(REFRESH_MS).strLevel) {
        throw ApiProblem("stopped", "The level is not motion any more.");
    }
    switch (eAnswer) {
    case ArmTerminal::ANSWER_REFUSED:
        throw ApiProblem("refused", "It was answered with error " +
                                        std::to_string(m_pTerminal->getCode()) +
                                        "; docs/guard.md and the controller's manual tell it.");
    case ArmTerminal::ANSWER_LATE:
        throw ApiProblem("late", "The end of the move was not told.");
    case ArmTerminal::ANSWER_GONE:
    case ArmTerminal::ANSWER_OK:
        break;
    }
    throw ApiProblem("no-terminal", "The terminal is gone.");
}

void Station::move(const std::string& strWords)
{
    demandMotion();
    demandTerminal();
    if (!m_pGuard->getState().bHomed) {
        throw ApiProblem("not-homed", "Nobody knows where the arm is.");
    }
    ArmUse::getInstance().awaitJobEnd();
    const ArmUser user(ARM_MOVE);
    if (!user.hasBegun()) {
        throw ApiProblem("busy", "The arm is in use.");
    }
    m_journal.add("operator", "move " + strWords);
    judge(m_pTerminal->move("G05 " + strWords));
}

void Station::jog(const std::string& strWords)
{
    demandMotion();
    demandTerminal();
    if (!m_pGuard->getState().bHomed) {
        throw ApiProblem("not-homed", "Nobody knows where the arm is.");
    }
    ArmUse::getInstance().awaitJobEnd();
    const ArmUser user(ARM_JOG);
    if (!user.hasBegun()) {
        throw ApiProblem("busy", "The arm is in use.");
    }
    m_journal.add("operator", "jog " + strWords);
    const ArmTerminal::ANSWER_E eMoved = m_pTerminal->send("G91 G1 " + strWords);
    judge((ArmTerminal::ANSWER_OK == eMoved) ? m_pTerminal->send("G90") : eMoved);
}

json Station::measure()
{
    demandMotion();
    demandTerminal();
    if (!m_pictures.isPresent()) {
        throw ApiProblem("no-camera", "No picture came in the last 2 s.");
    }
    if (!VideoProcessor::getInstance().canMeasure()) {
        throw ApiProblem("no-vision", std::string("There is no usable ") + PLUGIN + ".");
    }
    ArmUse::getInstance().awaitJobEnd();
    ArmUser user(ARM_MEASURE);
    if (!user.hasBegun()) {
        throw ApiProblem("busy", "The arm is in use.");
    }
    const uint32_t u32Refused = m_u32Refused;
    const uint32_t u32Trips = m_u32Trips;
    m_journal.add("operator", "measure");
    const std::shared_ptr<const ArmMeasure::Turn> pTurn = m_measure.begin(user);
    const uint64_t u64EndMs = monotonicMs() + MEASURE_MS;
    json result;
    do {
        sleepFor(STEP); // it is a matter of seconds
        result = pTurn->getResult();
        // What the guard told of it has been handled behind this.
        const bool bMotion = "motion" == m_pGuard->refresh(REFRESH_MS).strLevel;
        if (m_bEnd || !bMotion || u32Trips != m_u32Trips) {
            throw ApiProblem("stopped", "The level is not motion any more.");
        }
        if (monotonicMs() > u64EndMs) {
            throw ApiProblem("late", "The camera does not deliver, or the arm does not arrive.");
        }
    } while (result.is_null());
    if (u32Refused != m_u32Refused) {
        throw ApiProblem("refused", "The guard has refused a move to what was measured.");
    }
    if (!result.is_object()) {
        throw ApiProblem("internal", "Measuring failed: " + result.dump());
    }
    m_journal.add("station", tellMeasurement(result));
    return result;
}

void Station::unlock()
{
    m_journal.add("operator", "unlock");
    (void)m_pGuard->refresh(REFRESH_MS); // an alarm that was told before has been handled then
    ask({{"do", "unlock"}});
    m_bAlarm = false;
}

void Station::reset()
{
    m_journal.add("operator", "reset");
    demandDone(m_pGuard->turnOff());
    if (m_pGuard->refresh(REFRESH_MS).bResetHeld) {
        demandDone(m_pGuard->ask({{"do", "reset"}}));
    }
}

void Station::sendFirmware(int nFile, uint64_t u64Size, const std::string& strSum)
{
    m_journal.add("operator", "firmware, " + std::to_string(u64Size) + " bytes, SHA-256 " + strSum);
    ask({{"do", "firmware"}, {"size", u64Size}, {"sha256", strSum}}, nFile);
}
