// What a G-code line means to a controller that speaks Grbl 1.1: modal state in, actions out.
#pragma once

#include <string>
#include <vector>

#include "GrblAction.h"
#include "GrblModes.h"
#include "GrblOffsets.h"
#include "GrblSettings.h"
#include "GrblWords.h"

/**
 * Keeps the modes, the offsets and where the last line ends.
 *
 * A line that is refused changes nothing. Has no clock and moves nothing.
 */
class GrblInterpreter
{
public:
    /** @param settings  borrowed as long as the object lives */
    explicit GrblInterpreter(const GrblSettings& settings) : m_settings(settings) {}

    /**
     * @param strLine    in upper case, without blanks and comments
     * @param vecAction  appended to
     * @return 0 or the code of "error:N"
     */
    int interpret(const std::string& strLine, std::vector<GrblAction>& vecAction);

    /** The G-code of "$J="; it leaves nothing modal. */
    int interpretJog(const std::string& strLine, std::vector<GrblAction>& vecAction);

    /** What a reset leaves: offsets other than G92 stay. */
    void reset();

    /** Where the last line ends; set it when motion was cut short or the machine homed. */
    void setPosition(const Point& position)
    {
        m_position = position;
    }

    /** Machine position minus work position. */
    Point getWorkOffset() const
    {
        return m_offsets.getOffset(m_modes.nSystem);
    }

    const GrblModes& getModes() const
    {
        return m_modes;
    }

    const GrblOffsets& getOffsets() const
    {
        return m_offsets;
    }

    void forgetOffsets()
    {
        m_offsets = GrblOffsets();
    }

private:
    int apply(GrblWords& words, bool bJog, std::vector<GrblAction>& vecAction);
    int carryOut(GrblWords& words, const GrblModes& modes, std::vector<GrblAction>& vecAction);
    int appendMotion(GrblWords& words, const GrblModes& modes, const Point& target,
                     std::vector<GrblAction>& vecAction);
    void appendHome(const GrblWords& words, bool bAxes, const Point& target,
                    std::vector<GrblAction>& vecAction);
    void appendSpindle(const GrblModes& modes, bool bMotion,
                       std::vector<GrblAction>& vecAction) const;
    void appendEnd(const GrblWords& words, std::vector<GrblAction>& vecAction);
    Point getTarget(const GrblWords& words, const GrblModes& modes) const;

    const GrblSettings& m_settings;
    GrblModes m_modes;
    GrblOffsets m_offsets;
    Point m_position{}; // where the last line ends, machine
};
