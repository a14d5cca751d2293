// What is modal in Grbl 1.1: it holds from the line that sets it.
#include "GrblModes.h"

#include <cmath>
#include <cstdio>

#include "GrblErrors.h"

static const double MM_PER_INCH = 25.4;

int GrblModes::apply(const GrblWords& words)
{
    const auto has = [&words](GrblWords::GROUP_E eGroup) { return words.hasG(eGroup); };
    const auto code = [&words](GrblWords::GROUP_E eGroup) { return words.getG(eGroup); };
    bInch = has(GrblWords::GROUP_UNITS) ? 200 == code(GrblWords::GROUP_UNITS) : bInch;
    bRelative = has(GrblWords::GROUP_DISTANCE) ? 910 == code(GrblWords::GROUP_DISTANCE) : bRelative;
    nPlane = has(GrblWords::GROUP_PLANE) ? code(GrblWords::GROUP_PLANE) / 10 : nPlane;
    nMotion = has(GrblWords::GROUP_MOTION) ? code(GrblWords::GROUP_MOTION) / 10 : nMotion;
    nSystem = has(GrblWords::GROUP_SYSTEM) ? (code(GrblWords::GROUP_SYSTEM) - 540) / 10 : nSystem;
    if (has(GrblWords::GROUP_FEED)) {
        const bool bInverse = 930 == code(GrblWords::GROUP_FEED);
        dFeed = (bInverse != bInverseTime) ? 0 : dFeed;
        bInverseTime = bInverse;
    }
    if (words.get('F', dFeed)) {
        dFeed *= bInverseTime ? 1 : getUnit();
    }
    (void)words.get('S', dPower); // as before without one
    if (double dTool = 0; words.get('T', dTool)) {
        if (std::floor(dTool) != dTool) {
            return GRBL_ERROR_NOT_WHOLE;
        }
        nTool = static_cast<int>(dTool);
    }
    for (const int nM : words.getM()) {
        if (nM >= 3 && nM <= 5) {
            eSpindle = (3 == nM) ? SPINDLE_CONSTANT : (4 == nM) ? SPINDLE_DYNAMIC : SPINDLE_OFF;
        }
        bCoolant = (8 == nM) || (bCoolant && 9 != nM);
    }
    return 0;
}

double GrblModes::getUnit() const
{
    return bInch ? MM_PER_INCH : 1;
}

void GrblModes::endProgram()
{
    const double dKept = dFeed;
    *this = GrblModes();
    nMotion = 1;
    dFeed = dKept;
}

std::string GrblModes::format() const
{
    const char* const pSpindle = (SPINDLE_CONSTANT == eSpindle)  ? "M3"
                                 : (SPINDLE_DYNAMIC == eSpindle) ? "M4"
                                                                 : "M5";
    char acText[120] = {0};
    snprintf(acText, sizeof(acText), "[GC:G%d G%d G%d G%d G%d G%d %s %s T%d F%.*f S%.0f]\r\n",
             nMotion, 54 + nSystem, nPlane, bInch ? 20 : 21, bRelative ? 91 : 90,
             bInverseTime ? 93 : 94, pSpindle, bCoolant ? "M8" : "M9", nTool, bInch ? 1 : 0,
             dFeed / getUnit(), dPower);
    return acText;
}
