// A virtual motion controller that speaks Grbl 1.1: its real-time bytes.
#include "GrblController.h"

static const unsigned char BYTE_SOFT_RESET = 0x18;
static const unsigned char BYTE_DOOR = 0x84;
static const unsigned char BYTE_JOG_CANCEL = 0x85;
static const unsigned char BYTE_SPINDLE_STOP = 0x9e;
static const unsigned char BYTE_COOLANT = 0xa0;

bool GrblController::takeRealtime(unsigned char uByte)
{
    switch (uByte) {
    case '?':
        if (GRBL_STATE_HOME != m_machine.getState()) { // a homing run looks at resets alone
            report();
        }
        return true;
    case '!':
        cancelJog();
        m_machine.hold();
        return true;
    case '~':
        if (m_machine.resume()) {
            say("[MSG:Restoring spindle]\r\n");
        }
        return true;
    case BYTE_SOFT_RESET:
        softReset();
        return true;
    case BYTE_DOOR:
        m_machine.openDoor();
        return true;
    case BYTE_JOG_CANCEL:
        cancelJog();
        return true;
    default:
        if (uByte >= 0x80) {
            takeOverride(uByte);
            return true;
        }
        return false;
    }
}

void GrblController::takeOverride(unsigned char uByte)
{
    bool bTell = false;
    if (BYTE_SPINDLE_STOP == uByte) {
        m_machine.toggleSpindleStop();
    } else if (BYTE_COOLANT == uByte) {
        bTell = m_machine.toggleCoolant();
    } else {
        bTell = m_machine.takeOverride(uByte);
    }
    if (bTell) {
        m_statusReport.tellOverrides();
    }
}

void GrblController::cancelJog()
{
    if (m_machine.cancelJog()) {
        m_deqAction.erase(std::remove_if(m_deqAction.begin(), m_deqAction.end(),
                                         [](const GrblAction& action) { return action.bOn; }),
                          m_deqAction.end());
    }
}
