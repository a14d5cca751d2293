// The commands that change the virtual camera while it runs.
#include "CameraCommands.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace {

const char* const OK = "ok";
const char* const USAGE = "error: wrong arguments";

bool number(const std::string& strWord, uint32_t& u32Value)
{
    char* pEnd = nullptr;
    const unsigned long long nValue = strtoull(strWord.c_str(), &pEnd, 10);
    u32Value = static_cast<uint32_t>(nValue);
    return !strWord.empty() && strWord[0] >= '0' && strWord[0] <= '9' && '\0' == *pEnd &&
           nValue <= UINT32_MAX;
}

/**
 * A count at this place of the line: a number from 1, "always", or 1 when the line ends before.
 */
bool count(const std::vector<std::string>& vecWord, size_t uAt, uint32_t& u32Count)
{
    u32Count = 1;
    if (uAt >= vecWord.size()) {
        return true;
    }
    if ("always" == vecWord[uAt]) {
        u32Count = CameraFaults::ALWAYS;
        return true;
    }
    return number(vecWord[uAt], u32Count) && u32Count > 0;
}

bool oneOf(const std::string& strWord, const char* pFirst, const char* pSecond)
{
    return pFirst == strWord || pSecond == strWord;
}

bool micrometres(const std::string& strWord, int32_t& s32Value)
{
    char* pEnd = nullptr;
    const double dMillimetres = strtod(strWord.c_str(), &pEnd);
    if (strWord.empty() || '\0' != *pEnd || !(std::fabs(dMillimetres) < 2000000)) {
        return false;
    }
    s32Value = static_cast<int32_t>(std::lround(dMillimetres * 1000));
    return true;
}

} // namespace

CameraCommands::CameraCommands(UvcCamera& camera, KernelFiles& kernelFiles, SceneFile& scene,
                               CameraJournal& journal)
    : m_camera(camera), m_kernelFiles(kernelFiles), m_scene(scene), m_journal(journal)
{
}

bool CameraCommands::hasQuit() const
{
    return m_bQuit;
}

std::string CameraCommands::run(const std::string& strLine)
{
    Words vecWord;
    std::istringstream stream(strLine);
    for (std::string strWord; stream >> strWord;) {
        vecWord.push_back(strWord);
    }
    if (vecWord.empty()) {
        return USAGE;
    }
    if ("state" == strLine) {
        return stateText();
    }
    if ("status" == strLine) {
        return statusText();
    }
    if ("cpu" == strLine) {
        return std::string(OK) + " cpu=" + std::to_string(m_camera.cpuMicroseconds());
    }
    if ("unplug" != strLine &&
        0 != strLine.compare(0, 6, "replug")) { // which are noted where they take effect
        m_journal.note(strLine);
    }
    return change(vecWord);
}

std::string CameraCommands::change(const Words& vecWord)
{
    const std::string& strName = vecWord[0];
    const size_t uWords = vecWord.size();
    if ("unplug" == strName) {
        return unplug(vecWord);
    }
    if ("fail" == strName) {
        return fail(vecWord);
    }
    if ("bytes" == strName) {
        return bytes(vecWord);
    }
    if ("broken" == strName) {
        return broken(vecWord);
    }
    if ("replug" == strName) {
        return replug(vecWord);
    }
    if ("grant" == strName || "index" == strName || "coerce" == strName || "fps" == strName) {
        return counted(vecWord);
    }
    if ("list" == strName) {
        return list(vecWord);
    }
    if ("spot" == strName) {
        return spot(vecWord);
    }
    if ("journal" == strName && 2 == uWords && "clear" == vecWord[1]) {
        m_journal.clear();
    } else if ("timeperframe" == strName && 2 == uWords && oneOf(vecWord[1], "on", "off")) {
        m_camera.changeFaults(
            [&](CameraFaults& faults) { faults.m_bNoTimePerFrame = "off" == vecWord[1]; });
    } else if ("workpiece" == strName && 2 == uWords && "new" == vecWord[1]) {
        putWorkpiece();
    } else if ("stat" == strName && 2 == uWords && oneOf(vecWord[1], "regular", "normal")) {
        m_camera.changeFaults(
            [&](CameraFaults& faults) { faults.m_bRegularNode = "regular" == vecWord[1]; });
    } else if ("capabilities" == strName && 2 == uWords) {
        return capabilities(vecWord[1]);
    } else if ("mark" == strName) {
        return OK; // the note in the journal is all
    } else if (uWords > 1) {
        return USAGE;
    } else if ("freeze" == strName || "thaw" == strName) {
        m_camera.changeFaults(
            [&](CameraFaults& faults) { faults.m_bFrozen = "freeze" == strName; });
    } else if ("clear" == strName) {
        m_camera.changeFaults([](CameraFaults& faults) { faults = CameraFaults(); });
        m_camera.setRate(0);
        m_kernelFiles.setMode(KernelFiles::MODE_NORMAL, 2);
    } else if ("quit" == strName) {
        m_bQuit = true;
    } else {
        return "error: unknown command";
    }
    return OK;
}

/** capabilities HEX|normal */
std::string CameraCommands::capabilities(const std::string& strWord)
{
    char* pEnd = nullptr;
    const unsigned long nValue = strtoul(strWord.c_str(), &pEnd, 16);
    if ("normal" == strWord) {
        m_camera.changeFaults([](CameraFaults& faults) { faults.m_capabilities.reset(); });
        return OK;
    }
    if ('\0' != *pEnd || nValue > UINT32_MAX) {
        return USAGE;
    }
    m_camera.changeFaults(
        [&](CameraFaults& faults) { faults.m_capabilities = static_cast<uint32_t>(nValue); });
    return OK;
}

/** replug [videoN] [eventN] */
std::string CameraCommands::replug(const Words& vecWord)
{
    uint32_t u32Node = 0;
    uint32_t u32Event = 0;
    bool bEvent = false;
    for (size_t i = 1; i < vecWord.size(); ++i) {
        const std::string& strWord = vecWord[i];
        if (0 == strWord.compare(0, 5, "video") && 1 == i) {
            if (!number(strWord.substr(5), u32Node)) {
                return USAGE;
            }
        } else if (0 != strWord.compare(0, 5, "event") || i + 1 != vecWord.size() ||
                   !number(strWord.substr(5), u32Event)) {
            return USAGE;
        } else {
            bEvent = true;
        }
    }
    if (bEvent) {
        m_kernelFiles.setMode(KernelFiles::MODE_NORMAL, u32Event);
    }
    m_camera.replug(u32Node);
    return OK;
}

/** broken [COUNT|always] */
std::string CameraCommands::broken(const Words& vecWord)
{
    uint32_t u32Count = 1;
    if (vecWord.size() > 2 || !count(vecWord, 1, u32Count)) {
        return USAGE;
    }
    m_camera.changeFaults([&](CameraFaults& faults) { faults.setBroken(u32Count); });
    return OK;
}

/** unplug | unplug slowly [MS] | unplug after CALL */
std::string CameraCommands::unplug(const Words& vecWord)
{
    if (1 == vecWord.size()) {
        m_camera.unplug();
        return OK;
    }
    if ("slowly" == vecWord[1] && vecWord.size() <= 3) {
        uint32_t u32Milliseconds = 500;
        if (3 == vecWord.size() && !number(vecWord[2], u32Milliseconds)) {
            return USAGE;
        }
        m_camera.unplugSlowly(std::chrono::milliseconds(u32Milliseconds));
        return OK;
    }
    if (3 != vecWord.size() || "after" != vecWord[1]) {
        return USAGE;
    }
    const CAMERA_CALL_E eCall = "dequeue" == vecWord[2] ? CAMERA_DQBUF : callOf(vecWord[2]);
    if (CAMERA_CALLS == eCall || CAMERA_stat == eCall || CAMERA_open == eCall) {
        return "error: unknown call";
    }
    m_camera.changeFaults([&](CameraFaults& faults) { faults.m_unplugAfter = eCall; });
    return OK;
}

/** fail CALL ERRNO [COUNT|always [skip N]] */
std::string CameraCommands::fail(const Words& vecWord)
{
    uint32_t u32Count = 1;
    uint32_t u32Skip = 0;
    const bool bSkip = 6 == vecWord.size() && "skip" == vecWord[4];
    if (vecWord.size() < 3 || (vecWord.size() > 4 && !bSkip) || !count(vecWord, 3, u32Count) ||
        (bSkip && !number(vecWord[5], u32Skip))) {
        return USAGE;
    }
    const CAMERA_CALL_E eCall = callOf(vecWord[1]);
    const int nErrno = errorOf(vecWord[2]);
    if (CAMERA_CALLS == eCall) {
        return "error: unknown call";
    }
    if (0 == nErrno) {
        return "error: unknown errno";
    }
    m_camera.changeFaults(
        [&](CameraFaults& faults) { faults.failCall(eCall, nErrno, u32Count, u32Skip); });
    return OK;
}

/** bytes N|overflow [COUNT|always] */
std::string CameraCommands::bytes(const Words& vecWord)
{
    uint32_t u32Bytes = 0;
    uint32_t u32Count = 1;
    const bool bOverflow = vecWord.size() > 1 && "overflow" == vecWord[1];
    if (vecWord.size() < 2 || vecWord.size() > 3 || !count(vecWord, 2, u32Count) ||
        (!bOverflow && !number(vecWord[1], u32Bytes))) {
        return USAGE;
    }
    m_camera.changeFaults([&](CameraFaults& faults) {
        if (bOverflow) {
            faults.setOverflow(u32Count);
        } else {
            faults.setBytes(u32Bytes, u32Count);
        }
    });
    return OK;
}

/** grant N [COUNT|always], index N [COUNT|always], coerce FPS|off, fps N|auto */
std::string CameraCommands::counted(const Words& vecWord)
{
    uint32_t u32Value = 0;
    uint32_t u32Count = 1;
    const std::string& strName = vecWord[0];
    const bool bOff = vecWord.size() > 1 && ("off" == vecWord[1] || "auto" == vecWord[1]);
    const bool bRate = "coerce" == strName || "fps" == strName;
    if (vecWord.size() < 2 || vecWord.size() > (bRate ? 2u : 3u) ||
        !(bRate && bOff ? true : number(vecWord[1], u32Value)) || !count(vecWord, 2, u32Count)) {
        return USAGE;
    }
    if (bRate && !bOff && (u32Value < 1 || u32Value > 200)) {
        return "error: 1 to 200 frames per second";
    }
    if ("fps" == strName) {
        m_camera.setRate(u32Value);
        return OK;
    }
    if ("grant" == strName && (u32Value < 1 || u32Value > VIDEO_MAX_FRAME)) {
        return "error: 1 to 32 buffers";
    }
    m_camera.changeFaults([&](CameraFaults& faults) {
        if ("grant" == strName) {
            faults.setGrant(u32Value, u32Count);
        } else if ("index" == strName) {
            faults.setIndex(u32Value, u32Count);
        } else {
            faults.m_coercedRate = bOff ? std::nullopt : std::optional<uint32_t>(u32Value);
        }
    });
    return OK;
}

/** list normal|missing|nohandlers, list event N */
std::string CameraCommands::list(const Words& vecWord)
{
    const std::string strMode = vecWord.size() > 1 ? vecWord[1] : "";
    uint32_t u32Event = 2;
    if ("event" == strMode ? 3 != vecWord.size() || !number(vecWord[2], u32Event)
                           : 2 != vecWord.size()) {
        return USAGE;
    }
    KernelFiles::MODE_E eMode = KernelFiles::MODE_NORMAL;
    if ("missing" == strMode) {
        eMode = KernelFiles::MODE_MISSING;
    } else if ("nohandlers" == strMode) {
        eMode = KernelFiles::MODE_NO_HANDLERS;
    } else if ("normal" != strMode && "event" != strMode) {
        return USAGE;
    }
    m_kernelFiles.setMode(eMode, u32Event);
    return OK;
}

/** spot X Y Z on|off, in millimetres */
std::string CameraCommands::spot(const Words& vecWord)
{
    int32_t as32Position[3] = {};
    if (5 != vecWord.size() || !oneOf(vecWord[4], "on", "off")) {
        return USAGE;
    }
    for (size_t i = 0; i < 3; ++i) {
        if (!micrometres(vecWord[i + 1], as32Position[i])) {
            return USAGE;
        }
    }
    SceneState& state = m_scene.getState();
    state.s32XMicrometre = as32Position[0];
    state.s32YMicrometre = as32Position[1];
    state.s32ZMicrometre = as32Position[2];
    state.u32LaserOn = "on" == vecWord[4] ? LIGHT_PILOT : LIGHT_OFF;
    return OK;
}

void CameraCommands::putWorkpiece()
{
    BurntState& burnt = m_scene.getBurnt();
    if (0 == burnt.u32Changes.load(std::memory_order_relaxed)) {
        return; // nothing was ever burnt
    }
    for (std::atomic<float>& fShare : burnt.afShare) {
        fShare.store(0, std::memory_order_relaxed);
    }
    burnt.u32Changes.fetch_add(1, std::memory_order_release);
}

std::string CameraCommands::stateText()
{
    const Truth truth = m_camera.truth();
    char acText[256];
    snprintf(acText, sizeof(acText),
             "ok frame=%u laser=%d visible=%d x=%.3f y=%.3f sigma=%.3f xmm=%.3f ymm=%.3f zmm=%.3f",
             truth.u32Number, truth.bLaserOn ? 1 : 0, truth.bInPicture ? 1 : 0, truth.dX, truth.dY,
             truth.dSigma, truth.dXMillimetre, truth.dYMillimetre, truth.dZMillimetre);
    return acText;
}

std::string CameraCommands::statusText()
{
    const UvcCamera::Status status = m_camera.status();
    char acText[256];
    snprintf(acText, sizeof(acText),
             "ok plugged=%d streaming=%d frozen=%d opens=%u frame=%u fps=%.2f format=%s size=%ux%u",
             status.bPlugged ? 1 : 0, status.bStreaming ? 1 : 0, status.bFrozen ? 1 : 0,
             status.u32Opens, status.u32Number, status.dRate,
             pixelFormatName(status.choice.u32PixelFormat).c_str(), status.choice.u32Width,
             status.choice.u32Height);
    return acText;
}
