// Looks through a whole job before it is opened: what the guard would refuse, and what it comes to.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "GcodeCheck.h"
#include "ILanguage.h"

/** Something about a job. */
struct JobFinding
{
    size_t uLine = 0;         // from 1; 0: the job as a whole
    const char* pReason = ""; // static text
    bool bRefused = true;     // else it is only worth knowing
    bool bMendable = false;   // the mended copy has it no longer
    std::string strText;      // the line's beginning; any bytes
};

/** What a job comes to. Millimetres of the homed machine; of the lines that pass, mended or not. */
struct JobReport
{
    size_t uSize = 0;
    size_t uLines = 0;
    std::string strSum; // SHA-256 in hexadecimal digits, as the guard tells it

    std::vector<JobFinding> vecFinding;      // the first JobCheck::MAX_FINDINGS
    std::map<std::string, size_t> mapReason; // how many of each, all of them
    size_t uRefused = 0;                     // all of them
    size_t uMendable = 0;                    // refused, and in the mended copy no longer

    bool bMoves = false;
    MachinePoint minimum{}; // the box, with the place that the first move begins at
    MachinePoint maximum{};
    double dPath = 0;
    double dBurn = 0; // of that with the beam on, G1 to G3
    double dLitTravel =
        0;               // of that G0 while the beam is switched on; Grbl's laser mode is dark then
    double dMaxFeed = 0; // mm/min, G1 to G3
    double dMaxPower = 0; // while the beam is switched on
    double dSeconds = 0;  // as MotionTime tells it

    /** Whether the guard would let all of it pass, and the service end it. */
    bool passes() const
    {
        return 0 == uRefused;
    }
};

/** What the beam does on a move. */
enum MOVE_BEAM_E
{
    MOVE_DARK,
    MOVE_BURN,
    MOVE_LIT_TRAVEL // G0 while the beam is switched on
};

/**
 * The guard's rules are the guard's own code: a job that passes here passes there, as long as the
 * arm stands where it was said to and nothing has been modal before.
 *
 * A line that is refused changes nothing, unless it can be mended: then what follows is looked at
 * as behind the mended line.
 */
class JobCheck
{
public:
    static const size_t MAX_SIZE = 32U << 20; // the guard copies no more
    static const size_t MAX_LINE = 254;       // bytes; the service sends longer ones in pieces
    static const size_t MAX_FINDINGS = 1000;

    /** @param language  borrowed for the object's life */
    JobCheck(const GuardLimits& limits, const ILanguage& language);

    /** Where the arm stands when the job begins; the origin unless told. */
    void setStart(const MachinePoint& start);

    /** @param uSystem  0 is G54; the homed machine's origin unless told */
    void setSystem(size_t uSystem, const MachinePoint& origin);

    using MoveHandler = std::function<void(const GcodeMove& move, MOVE_BEAM_E eBeam)>;

    /** @param handler  is called for each move while check() runs */
    void onMove(MoveHandler handler);

    /**
     * @param pMended  takes the job with each line mended that is refused and can be, with a last
     * line end and with M5 where the beam would be left on; nullptr: not wanted. Not for a job
     * without a byte or over MAX_SIZE, of which nothing is told but that
     */
    JobReport check(const std::string& strText, std::string* pMended) const;

private:
    GuardLimits m_limits;
    const ILanguage& m_language;
    MachinePoint m_start{};
    std::array<MachinePoint, GcodeCheck::SYSTEMS> m_aSystem{};
    MoveHandler m_handler;
};
