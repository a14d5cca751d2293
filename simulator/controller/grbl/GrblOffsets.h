// The offsets between machine and work positions in Grbl 1.1, and the two stored positions.
#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "GrblModes.h"
#include "GrblWords.h"
#include "Motion.h"

/** Coordinate systems (G10, G54 to G59), G92, tool length, G28 and G30. All in millimetres. */
class GrblOffsets
{
public:
    /** Machine position minus work position, in coordinate system nSystem (0 is G54). */
    Point getOffset(int nSystem) const;

    /**
     * Carry out the line's G10, G92, G92.1, G28.1 or G30.1, and take its words. Of G28 and G30 the
     * axis words are taken and nothing else is done.
     * @param position  where the machine is when the line's turn comes
     * @return 0 or the code of "error:N"; the offsets may have changed in part then
     */
    int apply(GrblWords& words, const GrblModes& modes, const Point& position);

    void setToolLength(double dLength)
    {
        m_dToolLength = dLength;
    }

    /** Where G28 leads, a machine position. */
    const Point& getHome28() const
    {
        return m_home28;
    }

    /** The same of G30. */
    const Point& getHome30() const
    {
        return m_home30;
    }

    /** What a reset forgets: G92 and the tool length. */
    void reset();

    /** The answer to "$#" without its "ok": "[G54:...]\r\n" and so on, the last probe at the end.
     */
    std::string format() const;

private:
    static constexpr size_t SYSTEMS = 6; // G54 to G59

    int setAxes(GrblWords& words, const GrblModes& modes, const Point& position);

    std::array<Point, SYSTEMS> m_aSystem{};
    Point m_home28{};
    Point m_home30{};
    Point m_shift92{};
    double m_dToolLength = 0; // of Z
};
