// Fuzzes the guard's interlock: any bytes of the service's and the controller's, any wishes, at any
// time, in both languages.
//
// The first byte of an input chooses the language. A step is a letter and a length, with as many
// bytes behind it where it has any:
//   s the service sends them, c the controller does, j the service sends the job's next line,
//   o the controller answers "ok", g it greets, r it reports rest without beam, p time passes,
//   w the operator wishes, u the port comes, l it goes, h the service hangs up, b the port has room
#include "Interlock.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "DeskLimits.h"
#include "GrblLanguage.h"
#include "KestrelLanguage.h"

namespace {

// Neighbours that are equal among them.
// One takes so long that the next may wait for its answer beyond the service's patience.
const std::array<const char*, 8> LINES{"M3S500", "G91",  "G1X1F6000", "G1X1",
                                       "G1X1",   "G4P9", "G1X-3",     "M5"};
const std::string IMAGE(5000, 'i');

void require(bool bHolds, const char* pWhat)
{
    if (!bHolds) {
        fprintf(stderr, "not true: %s\n", pWhat);
        abort();
    }
}

class World : public IGuardActions
{
public:
    explicit World(const ILanguage& language)
        : m_language(language), m_interlock(language, deskLimits(), *this)
    {
        for (const char* const pLine : LINES) {
            m_strJob += std::string(pLine) + "\n";
        }
    }

    void step(char cKind, const char* pData, size_t uLength)
    {
        const LEVEL_E eBefore = m_interlock.getLevel();
        m_bWished = false;
        act(cKind, pData, uLength);
        if (m_interlock.getDeadline() <= m_s64NowUs) {
            m_interlock.onTime(m_s64NowUs);
        }
        require(m_bWished || m_interlock.getLevel() <= eBefore,
                "only the operator raises the level");
        require(LEVEL_JOB != m_interlock.getLevel() || m_interlock.getJobLine() <= m_uSent,
                "the place is not ahead of what was sent");
    }

    void toController(const char* pBytes, size_t uLength) override
    {
        require(m_bPort, "the port is there");
        const std::string strText(pBytes, uLength);
        if ("?" == strText) {
            return;
        }
        require(m_interlock.isBeamSeenOff(), "nothing passes before the beam was seen off");
        const bool bOwn = "M5\n" == strText || "$$\n" == strText || "$#\n" == strText;
        require(!m_bTripped || bOwn, "after a trip nothing but beam off and questions");
        if (m_interlock.isSendingFirmware() && 'i' == pBytes[0]) {
            return;
        }
        GcodeLine line;
        const bool bWords = LINE_GOOD == parseGcode(pBytes, uLength - 1, line);
        if (LEVEL_JOB != m_interlock.getLevel()) {
            require(!bWords || (!line.hasM(30) && !line.hasM(40)), "no beam outside a job");
            return;
        }
        if (m_uSent < LINES.size() && LINES[m_uSent] + std::string("\n") == strText &&
            m_uSent == m_interlock.getJobLine()) {
            ++m_uSent;
        } else if (isKept() && LINES[m_uSent - 1] + std::string("\n") == strText) {
            // a held controller has said that it did not take it
        } else if (bWords) {
            const bool bEnd = "M5\n" == strText || 0 == strText.compare(0, 2, "M1") ||
                              0 == strText.compare(0, 2, "M9") || 0 == line.uLength;
            require(bEnd, "the job's lines in order, and each once");
        }
    }
    void cutBeam(const char* pBytes, size_t uLength) override
    {
        require(m_bPort && 1 == uLength && 0x18 == pBytes[0], "beam off is one byte");
    }
    void toService(const char* pBytes, size_t uLength) override
    {
        const std::string strText(pBytes, uLength);
        require(uLength > 1 && '\n' == strText.back(), "whole lines");
        require("error:2\n" != strText && "error:9\n" != strText, "no lock's code");
        require(std::string::npos == strText.find("status:1") || "status:1\n" == strText,
                "a hold stands alone");
    }
    void holdReset(bool /*bLow*/) override {}
    void tell(NOTICE_E eNotice, int nDetail) override
    {
        m_bTripped = m_bTripped || NOTICE_TRIP == eNotice;
        if (NOTICE_HELD == eNotice || NOTICE_GOES_ON == eNotice) {
            m_bHeld = NOTICE_HELD == eNotice;
            m_uKept = m_interlock.getJobLine();
        }
        if (NOTICE_JOB_DONE == eNotice) {
            require(LINES.size() == static_cast<size_t>(nDetail),
                    "a job ends behind its last line");
        }
    }

private:
    /** Whether the line sent last may go out again: one that is not answered never does. */
    bool isKept() const
    {
        const bool bLast = m_uSent == m_interlock.getJobLine() + 1;
        return !m_language.hasReports() && bLast && (m_bHeld || m_uKept + 1 == m_uSent);
    }
    void act(char cKind, const char* pData, size_t uLength)
    {
        const unsigned uValue = (uLength > 0) ? static_cast<unsigned char>(pData[0]) : 0;
        switch (cKind) {
        case 's':
            m_interlock.onServiceBytes(pData, uLength, m_s64NowUs);
            break;
        case 'j': {
            const size_t uNext = std::min(m_interlock.getJobLine(), LINES.size() - 1);
            const std::string strLine = std::string(LINES[uNext]) + "\n\n";
            m_interlock.onServiceBytes(strLine.data(), strLine.size(), m_s64NowUs);
            break;
        }
        case 'c':
            reply(std::string(pData, uLength));
            break;
        case 'o':
            reply("ok\n");
            break;
        case 'g':
            reply(m_language.hasReports() ? "Grbl 1.1h ['$' for help]\n" : "ready\n");
            break;
        case 'r':
            reply("<Idle|MPos:0.000,0.000,0.000|FS:0,0>\n");
            break;
        case 'p':
            m_s64NowUs += static_cast<int64_t>(uValue) * uValue * 200; // 13 s at most
            break;
        case 'w':
            wish(uValue);
            break;
        case 'u':
            m_bPort = true;
            m_interlock.onPortUp(m_s64NowUs);
            break;
        case 'l':
            if (m_bPort) {
                m_bPort = false;
                m_interlock.onPortLost(m_s64NowUs);
            }
            break;
        case 'h':
            m_interlock.onServiceGone(m_s64NowUs);
            break;
        case 'b':
            m_interlock.onPortRoom(m_s64NowUs);
            break;
        default:
            break;
        }
    }
    void wish(unsigned uWhich)
    {
        const bool bTripped = m_bTripped;
        m_bWished = true;
        m_bTripped = false; // what is wished for may pass
        WISH_E eWish = WISH_DONE;
        switch (uWhich % 11) {
        case 0:
            eWish = m_interlock.raise(m_s64NowUs);
            break;
        case 1:
            eWish = m_interlock.home(m_s64NowUs);
            break;
        case 2: {
            const size_t uFormer = m_uSent;
            m_uSent = 0;
            eWish = m_interlock.openJob(m_strJob.data(), m_strJob.size(), 10000000, m_s64NowUs);
            m_uSent = (WISH_DONE == eWish) ? m_uSent : uFormer;
            if (WISH_DONE == eWish) {
                m_bHeld = false;
                m_uKept = LINES.size();
            }
            break;
        }
        case 3:
            eWish = m_interlock.pause(m_s64NowUs);
            break;
        case 4:
            eWish = m_interlock.resume(m_s64NowUs);
            break;
        case 5:
            eWish = m_interlock.renewLease(m_s64NowUs);
            break;
        case 6:
            eWish = m_interlock.unlock(m_s64NowUs);
            break;
        case 7:
            eWish = m_interlock.drop(m_s64NowUs);
            break;
        case 8:
            eWish = m_interlock.sendFirmware(IMAGE.data(), IMAGE.size(), m_s64NowUs);
            break;
        case 9:
            m_interlock.clearReset();
            break;
        default:
            m_interlock.off(m_s64NowUs);
            break;
        }
        m_bTripped = m_bTripped || (bTripped && WISH_DONE != eWish);
    }
    void reply(const std::string& strBytes)
    {
        if (m_bPort) {
            m_interlock.onControllerBytes(strBytes.data(), strBytes.size(), m_s64NowUs);
        }
    }

    const ILanguage& m_language;
    Interlock m_interlock;
    std::string m_strJob;
    int64_t m_s64NowUs = 1000000;
    bool m_bPort = false;
    bool m_bTripped = false; // and nothing was wished for since
    bool m_bWished = false;
    size_t m_uSent = 0;   // lines of the job
    bool m_bHeld = false; // by the controller itself, in this job
    size_t m_uKept = 0;   // the line at which that began or ended last
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize)
{
    static const KestrelLanguage KESTREL;
    static const GrblLanguage GRBL;
    if (uSize < 2) {
        return 0;
    }
    const char* const pText = reinterpret_cast<const char*>(pData);
    World world((0 == pData[0] % 2) ? static_cast<const ILanguage&>(KESTREL) : GRBL);
    for (size_t uPos = 1; uPos < uSize;) {
        const char cKind = pText[uPos++];
        const bool bBytes = nullptr != strchr("scpw", cKind) && '\0' != cKind && uPos < uSize;
        const size_t uWanted = bBytes ? pData[uPos++] : 0;
        const size_t uLength = std::min(uWanted, uSize - uPos);
        world.step(cKind, pText + uPos, uLength);
        uPos += uLength;
    }
    return 0;
}
