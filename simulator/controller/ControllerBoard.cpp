// The virtual controller board: port, pins, control socket and scene around the controller.
#include "ControllerBoard.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>
#include <vector>

#include <poll.h>

#include "GrblController.h"

static const double MICROMETRES_PER_MM = 1000;
static const double US_PER_SECOND = 1e6;

static int64_t monotonicUs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

/** What a receiver at another speed makes of bytes. */
static void garble(std::string& strText)
{
    for (char& c : strText) {
        c = static_cast<char>((static_cast<unsigned char>(c) * 37) | 0x80);
    }
}

static bool parseMillimetres(const std::string& strText, double& dMillimetres)
{
    char* pRest = nullptr;
    const double dValue = strtod(strText.c_str(), &pRest);
    const bool bGood = !strText.empty() && '\0' == *pRest && std::isfinite(dValue);
    dMillimetres = bGood ? dValue : dMillimetres;
    return bGood;
}

ControllerBoard::ControllerBoard(const ControllerBoardOptions& options)
    : m_options(options), m_s64StartUs(monotonicUs()), m_port(options.strNode),
      m_control([this](const std::string& strCommand) { return answer(strCommand); })
{
    if (options.bGrbl) {
        auto pGrbl = std::make_unique<GrblController>(options.controller, m_journal);
        for (const auto& [nNumber, dValue] : options.vecSetting) {
            m_bPreset = pGrbl->preset(nNumber, dValue) && m_bPreset;
        }
        m_pController = std::move(pGrbl);
    } else {
        m_pController = std::make_unique<Controller>(options.controller, m_journal);
    }
    m_pController->setTrigger([this](const std::string& strCommand) {
        (void)runCommand(strCommand); // was checked when it came in
    });
}

bool ControllerBoard::init(std::string& strError)
{
    const auto fail = [&strError](const std::string& strWhat) {
        strError = strWhat + ": " + strerror(errno);
        return false;
    };
    if (!m_bPreset) {
        strError = "--setting: refused";
        return false;
    }
    if (!m_options.strJournal.empty() && !m_journal.open(m_options.strJournal)) {
        return fail(m_options.strJournal);
    }
    m_pController->advance(nowUs()); // so that the log begins with a beam that is on
    if (!m_options.strScene.empty()) {
        m_pScene = std::make_unique<SceneFile>(m_options.strScene);
        if (!m_pScene->isMapped()) {
            return fail(m_options.strScene);
        }
        m_pBurner = std::make_unique<Burner>(m_pScene->getBurnt());
        m_pController->onBeam([this](const BeamStroke& stroke) {
            m_pBurner->burn(toScene(stroke.from), toScene(stroke.to), stroke.dEnergy);
        });
        updateScene(true);
    }
    if (!m_options.strGpio.empty() && !m_gpio.open(m_options.strGpio)) {
        return fail(m_options.strGpio);
    }
    if (!m_options.strControl.empty() && !m_control.start(m_options.strControl)) {
        return fail(m_options.strControl);
    }
    m_pController->booted(nowUs());
    if (m_options.bPlugged) {
        if (!plug()) {
            return fail(m_options.strNode);
        }
        m_journal.record(nowUs(), "plugged", m_options.strNode);
    }
    return m_options.strScript.empty() || loadScript(strError);
}

bool ControllerBoard::loadScript(std::string& strError)
{
    return m_script.load(
        m_options.strScript,
        [this](const std::string& strLine) {
            return 0 == strLine.compare(0, 5, "line ") && "ok" == runCommand(strLine);
        },
        strError);
}

int64_t ControllerBoard::nowUs() const
{
    return monotonicUs() - m_s64StartUs;
}

int ControllerBoard::pollTimeoutMs(int64_t s64NowUs) const
{
    int64_t s64DueUs = m_pController->nextDueUs(s64NowUs);
    const double dNext = m_script.getNext();
    const int64_t s64NextUs = static_cast<int64_t>(dNext * US_PER_SECOND);
    if (dNext >= 0 && (s64DueUs < 0 || s64NextUs < s64DueUs)) {
        s64DueUs = s64NextUs;
    }
    if (m_s64BootUs >= 0 && (s64DueUs < 0 || m_s64BootUs < s64DueUs)) {
        s64DueUs = m_s64BootUs;
    }
    if (s64DueUs < 0) {
        return -1;
    }
    const int64_t s64Ms = (s64DueUs - s64NowUs + 999) / 1000;
    return (s64Ms < 0) ? 0 : (s64Ms > INT_MAX) ? INT_MAX : static_cast<int>(s64Ms);
}

void ControllerBoard::run(int nStopFd)
{
    while (!m_bQuit) {
        m_journal.flush();
        std::vector<pollfd> vecPoll{{nStopFd, POLLIN, 0}};
        for (const int nFd : m_gpio.getFds()) {
            vecPoll.push_back({nFd, POLLIN, 0});
        }
        if (!m_bStalled && m_pController->wantsInput()) {
            vecPoll.push_back({m_port.getFd(), POLLIN, 0});
        }
        vecPoll.push_back({m_dtr.getFd(), POLLIN, 0}); // poll(2) leaves a negative one out
        m_control.watch(vecPoll);
        if (poll(vecPoll.data(), vecPoll.size(), pollTimeoutMs(nowUs())) < 0 && EINTR != errno) {
            return;
        }
        if (0 != vecPoll[0].revents) {
            return;
        }
        runDue(nowUs());
        readPins(nowUs());
        readDtr(nowUs());
        endBoot(nowUs());
        readPort(nowUs());
        m_pController->advance(nowUs());
        writeAnswers(nowUs());
        m_control.handle();
        updateScene(false);
    }
}

std::string ControllerBoard::answer(const std::string& strCommand)
{
    readDtr(nowUs());
    endBoot(nowUs());
    readPort(nowUs()); // what the client wrote before it asked comes first
    std::string strResult = runCommand(strCommand);
    writeAnswers(nowUs());
    m_journal.flush();
    return strResult;
}

void ControllerBoard::readPort(int64_t s64NowUs)
{
    while (m_port.isPlugged() && !m_bStalled && m_pController->wantsInput()) {
        const std::string strBytes = m_port.read();
        if (strBytes.empty()) {
            return;
        }
        readDtr(s64NowUs);            // their sender may have opened the port just now
        if (!m_port.isSpeedRight()) { // broken frames: no line can be made of them
            m_journal.record(s64NowUs, "garbled", strBytes);
            continue;
        }
        if (m_bDeaf) {
            m_journal.record(s64NowUs, "unheard", strBytes);
            continue;
        }
        m_pController->receive(strBytes, s64NowUs);
        m_pController->advance(s64NowUs); // so that the beam is as the answer says
        writeAnswers(s64NowUs);
    }
}

void ControllerBoard::writeAnswers(int64_t s64NowUs)
{
    updateScene(false); // the spot is there before the end of a move is heard of
    for (std::string strText; m_pController->takeAnswer(s64NowUs, strText);) {
        if (m_bDeaf) {
            continue; // what it says once booted is another greeting
        }
        if (m_port.isPlugged() && !m_port.isSpeedRight()) {
            m_journal.record(s64NowUs, "garbled", strText);
            garble(strText);
        }
        const bool bHeard = m_port.isPlugged() && (!m_options.bResetOnOpen || m_dtr.isOpen());
        const size_t uWritten = bHeard ? m_port.write(strText) : 0;
        m_journal.record(s64NowUs, "tx", strText.substr(0, uWritten));
        if (uWritten < strText.size()) {
            m_journal.record(s64NowUs, "lost", strText.substr(uWritten));
        }
    }
}

void ControllerBoard::readPins(int64_t s64NowUs)
{
    for (const GpioLines::Store& store : m_gpio.read()) {
        m_journal.record(s64NowUs, store.bTaken ? "gpio" : "gpio-refused",
                         store.strFile + " " + store.strText);
        if (!store.bTaken || "export" == store.strFile) {
            continue;
        }
        // A pin that becomes an output is low at once; an input leaves the line high.
        const bool bLow = "0" == store.strText || "low" == store.strText || "out" == store.strText;
        setResetLine(bLow, s64NowUs);
    }
}

void ControllerBoard::readDtr(int64_t s64NowUs)
{
    if (!m_dtr.hasRisen()) {
        return;
    }
    m_journal.record(s64NowUs, "dtr", "reset");
    m_pController->reset(s64NowUs);
    m_bDeaf = true;
    m_s64BootUs = s64NowUs + m_options.s64BootUs;
}

void ControllerBoard::endBoot(int64_t s64NowUs)
{
    if (m_s64BootUs < 0 || s64NowUs < m_s64BootUs) {
        return;
    }
    m_s64BootUs = -1;
    if (!std::exchange(m_bDeaf, false)) {
        setPlugged(true, s64NowUs);
    }
    m_pController->booted(s64NowUs);
}

void ControllerBoard::setResetLine(bool bLow, int64_t s64NowUs)
{
    if (bLow && !m_bResetLow) {
        m_s64BootUs = -1;
        m_bDeaf = false;
        setPlugged(false, s64NowUs);
        m_pController->reset(s64NowUs);
    } else if (!bLow && m_bResetLow) {
        m_s64BootUs = s64NowUs + m_options.s64BootUs;
    }
    m_bResetLow = bLow;
}

void ControllerBoard::runDue(int64_t s64NowUs)
{
    const double dNow = static_cast<double>(s64NowUs) / US_PER_SECOND;
    for (std::string strDue; !(strDue = m_script.takeDue(dNow)).empty();) {
        (void)runCommand(strDue); // recorded there
    }
}

void ControllerBoard::updateScene(bool bAlways)
{
    const Point position = m_pController->getPosition();
    LIGHT_E eLight = m_pController->isPilotOn() ? LIGHT_PILOT : LIGHT_OFF;
    if (m_pController->getBeam().get().bOn) {
        eLight = LIGHT_BEAM; // outshines the pilot spot
    }
    const bool bSame = position == m_scenePosition && eLight == m_eSceneLight;
    if (nullptr == m_pScene || (bSame && !bAlways)) {
        return;
    }
    m_scenePosition = position;
    m_eSceneLight = eLight;
    const auto toMicrometres = [](double dMm) {
        return static_cast<int32_t>(lround(dMm * MICROMETRES_PER_MM));
    };
    const Burner::Place place = toScene(position);
    SceneState& scene = m_pScene->getState();
    scene.s32XMicrometre = toMicrometres(place.dX);
    scene.s32YMicrometre = toMicrometres(place.dY);
    scene.s32ZMicrometre = toMicrometres(place.dZ);
    scene.u32LaserOn = eLight;
}

/** The arm's axes point against the picture's. */
Burner::Place ControllerBoard::toScene(const Point& position) const
{
    return {-position[0], -position[1], m_options.dFocusZ - position[2]};
}

/** @return false with errno set */
bool ControllerBoard::plug()
{
    return m_port.plug() && (!m_options.bResetOnOpen || m_dtr.watch());
}

void ControllerBoard::setPlugged(bool bPlugged, int64_t s64NowUs)
{
    if (bPlugged == m_port.isPlugged()) {
        return;
    }
    if (!bPlugged) {
        m_dtr.forget();
        m_port.unplug();
        m_pController->dropWire();
        m_journal.record(s64NowUs, "unplugged", m_options.strNode);
    } else if (plug()) {
        m_journal.record(s64NowUs, "plugged", m_options.strNode);
    } else {
        m_journal.record(s64NowUs, "unpluggable", strerror(errno));
    }
}

std::string ControllerBoard::runCommand(const std::string& strCommand)
{
    const int64_t s64NowUs = nowUs();
    if ("state" == strCommand) {
        m_pController->advance(s64NowUs);
        return m_pController->describe() + (m_port.isPlugged() ? " plugged=1" : " plugged=0");
    }
    if ("beam" == strCommand) {
        m_pController->advance(s64NowUs);
        return m_pController->getBeam().describe(s64NowUs);
    }
    if ("input" == strCommand) {
        return "input=" + ControllerJournal::escape(m_pController->getInput());
    }
    const std::vector<std::string> vecWord = splitWords(strCommand);
    int nLine = 0;
    if (vecWord.size() >= 3 && "line" == vecWord[0] && parseCount(vecWord[1], nLine)) {
        const size_t uRest = strCommand.find(vecWord[2], 5 + vecWord[1].size());
        m_pController->addTrigger(nLine, strCommand.substr(uRest));
        return "ok";
    }
    m_journal.record(s64NowUs, "command", strCommand);
    if ("unplug" == strCommand || "plug" == strCommand) {
        setPlugged("plug" == strCommand, s64NowUs);
    } else if ("stall" == strCommand || "unstall" == strCommand) {
        m_bStalled = "stall" == strCommand;
    } else if (2 == vecWord.size() && "focus-z" == vecWord[0] &&
               parseMillimetres(vecWord[1], m_options.dFocusZ)) {
        updateScene(true);
    } else if ("quit" == strCommand) {
        m_bQuit = true;
    } else if (!m_pController->runCommand(strCommand, s64NowUs)) {
        m_journal.record(s64NowUs, "refused", strCommand);
        return "error: not understood: " + strCommand;
    }
    return "ok";
}
