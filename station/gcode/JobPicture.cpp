// A job's path as an SVG picture.
#include "JobPicture.h"

#include <cmath>
#include <cstdio>

static const double MARGIN = 5; // mm
static const double HALF_TURN = 3.141592653589793;

namespace {

std::string number(double dValue)
{
    std::array<char, 64> acText{};
    snprintf(acText.data(), acText.size(), "%.3f", std::fabs(dValue) < 0.0005 ? 0.0 : dValue);
    std::string strText = acText.data();
    strText.erase(strText.find_last_not_of('0') + 1);
    if ('.' == strText.back()) {
        strText.pop_back();
    }
    return strText;
}

std::string pair(double dX, double dY)
{
    return number(dX) + " " + number(dY);
}

std::string path(const char* pClass, const std::string& strPath)
{
    return strPath.empty()
               ? ""
               : std::string("<path class=\"") + pClass + "\" d=\"" + strPath + "\"/>\n";
}

} // namespace

void JobPicture::add(const GcodeMove& move, MOVE_BEAM_E eBeam)
{
    Trace& trace = m_aTrace[eBeam];
    if (trace.strPath.empty() || trace.dX != move.from[0] || trace.dY != move.from[1]) {
        trace.strPath += "M" + pair(move.from[0], move.from[1]);
    }
    if (move.nMotion < 2) {
        trace.strPath += "L" + pair(move.to[0], move.to[1]);
    } else {
        // In halves, so that a whole circle has two ends; G3 turns from X to Y.
        const double dMiddle = move.dStart + ((2 == move.nMotion) ? -1 : 1) * move.dTravel / 2;
        const std::string strArc = "A" + pair(move.dRadius, move.dRadius) + " 0 " +
                                   (move.dTravel / 2 > HALF_TURN ? "1 " : "0 ") +
                                   ((2 == move.nMotion) ? "0 " : "1 ");
        trace.strPath += strArc + pair(move.dCentreX + move.dRadius * std::cos(dMiddle),
                                       move.dCentreY + move.dRadius * std::sin(dMiddle));
        trace.strPath += strArc + pair(move.to[0], move.to[1]);
    }
    trace.dX = move.to[0];
    trace.dY = move.to[1];
}

std::string JobPicture::draw(const GuardLimits& limits) const
{
    const double dWidth = limits.maximum[0] - limits.minimum[0];
    const double dHeight = limits.maximum[1] - limits.minimum[1];
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"" +
           pair(limits.minimum[0] - MARGIN, -limits.maximum[1] - MARGIN) + " " +
           pair(dWidth + 2 * MARGIN, dHeight + 2 * MARGIN) +
           "\">\n"
           "<style>path, rect { fill: none; stroke-width: 1; vector-effect: non-scaling-stroke }\n"
           "rect { stroke: #888 } .dark { stroke: #9bc } .lit { stroke: #f80 }"
           " .burn { stroke: #c00 }</style>\n"
           "<g transform=\"scale(1 -1)\">\n"
           "<rect x=\"" +
           number(limits.minimum[0]) + "\" y=\"" + number(limits.minimum[1]) + "\" width=\"" +
           number(dWidth) + "\" height=\"" + number(dHeight) + "\"/>\n" +
           path("dark", m_aTrace[MOVE_DARK].strPath) +
           path("lit", m_aTrace[MOVE_LIT_TRAVEL].strPath) +
           path("burn", m_aTrace[MOVE_BURN].strPath) + "</g>\n</svg>\n";
}
