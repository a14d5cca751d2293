// What a G-code line means to a controller that speaks Grbl 1.1: modal state in, actions out.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "GrblPlanner.h"
#include "GrblSettings.h"

enum GRBL_ACTION_E
{
    GRBL_MOVE,    // block; waits for room in the planner
    GRBL_SPINDLE, // block.eSpindle and dPower, once all motion has ended
    GRBL_COOLANT, // bOn, the same
    GRBL_DWELL,   // dSeconds, once all motion has ended
    GRBL_SYNC,    // wait for the end of all motion
    GRBL_PAUSE,   // M0: the same, then hold
    GRBL_HOME,
    GRBL_SAY,   // strText
    GRBL_LIMITS // block.target has to be within the soft limits
};

struct GrblAction
{
    GRBL_ACTION_E eKind;
    GrblBlock block{};
    double dSeconds = 0;
    bool bOn = false;
    std::string strText{};
};

/**
 * Keeps what is modal: motion, plane, units, distance, feed mode, coordinate system, feed, spindle.
 *
 * A line that is refused changes nothing. Has no clock and moves nothing.
 */
class GrblInterpreter
{
public:
    explicit GrblInterpreter(const GrblSettings& settings) : m_settings(settings) {}

    /**
     * @param strLine    in upper case, without blanks and comments
     * @param vecAction  appended to
     * @return 0 or the code of "error:N"
     */
    int interpret(const std::string& strLine, std::vector<GrblAction>& vecAction);

    /** The G-code of "$J=". */
    int interpretJog(const std::string& strLine, std::vector<GrblAction>& vecAction);

    /** What a reset leaves: offsets other than G92 stay. */
    void reset();

    /** Where the last line ends; to be told when motion was cut short or the machine homed. */
    void setPosition(const Point& position)
    {
        m_position = position;
    }

    /** Machine position minus work position. */
    Point getWorkOffset() const;

    /** "[GC:...]\r\n" */
    std::string formatModes() const;

    /** The coordinate systems, "[G54:...]\r\n" and so on. */
    std::string formatOffsets() const;

    void forgetOffsets();

    bool isCutting() const // a motion that the laser is on in
    {
        return m_modes.nMotion >= 1 && m_modes.nMotion <= 3;
    }

private:
    static constexpr size_t SYSTEMS = 6; // G54 to G59

    struct Modes
    {
        int nMotion = 0; // G0 to G3; 80
        int nPlane = 17;
        bool bInch = false;
        bool bRelative = false;
        bool bInverseTime = false;
        int nSystem = 0;
        SPINDLE_E eSpindle = SPINDLE_OFF;
        bool bCoolant = false;
        double dFeed = 0;  // mm/min
        double dPower = 0; // S word
        int nTool = 0;
    };

    /** A line's words. */
    struct Words
    {
        std::map<char, double> mapValue; // all but G and M
        std::array<int, 16> anGroup;     // per modal group the code times ten, or -1
        int nNonModal = -1;              // the same; of group 0
        std::vector<int> vecM;
    };

    static int read(const std::string& strLine, Words& words);
    static int applyG(int nTenths, Words& words);
    static int applyM(int nCode, Words& words);
    int apply(Words& words, bool bJog, std::vector<GrblAction>& vecAction);
    int applyModes(const Words& words, Modes& modes) const;
    int setOffsets(Words& words, const Modes& modes, const Point& target);
    int appendMotion(Words& words, const Modes& modes, const Point& target, int nMotion,
                     std::vector<GrblAction>& vecAction);
    int appendArc(Words& words, const Modes& modes, GrblBlock block, int nMotion,
                  std::vector<GrblAction>& vecAction);
    void appendSpindle(const Words& words, const Modes& modes, bool bMotion,
                       std::vector<GrblAction>& vecAction) const;
    Point getTarget(const Words& words, const Modes& modes, bool bMachine) const;

    struct Offsets
    {
        std::array<Point, SYSTEMS> aSystem{};
        Point home28{};
        Point home30{};
        Point shift92{};
        double dToolLength = 0;
    };

    const GrblSettings& m_settings;
    Modes m_modes;
    Offsets m_offsets;
    Point m_position{}; // where the last line ends, machine
};
