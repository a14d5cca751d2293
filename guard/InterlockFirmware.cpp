// The rules between the service, the operator and the controller: the controller's firmware.
#include <algorithm>
#include <cstring>

#include "Interlock.h"
#include "InterlockTimes.h"

static const size_t BLOCK_SIZE = 2048;
static const int64_t ANSWER_TIME = 2 * SECOND; // to the line that announces it
static const int64_t BLOCK_TIME = 10 * SECOND; // for a controller that writes its flash meanwhile
static const int64_t SETTLE_TIME = 3 * SECOND; // an image without a length ends by silence of one

WISH_E Interlock::checkFirmware(int64_t s64NowUs) const
{
    if (nullptr == m_language.getFirmwareLine()) {
        return WISH_UNSUPPORTED;
    }
    if (LEVEL_DARK != m_eLevel) {
        return WISH_LEVEL;
    }
    if (OFF_SEEN != m_eOff || !m_bPort) {
        return WISH_BEAM;
    }
    return isQuiet(s64NowUs) ? WISH_DONE : WISH_BUSY;
}

WISH_E Interlock::sendFirmware(const char* pImage, size_t uSize, int64_t s64NowUs)
{
    if (const WISH_E eWish = checkFirmware(s64NowUs); WISH_DONE != eWish) {
        return eWish;
    }
    if (!send(m_language.getFirmwareLine(), EXPECT_FIRMWARE, s64NowUs)) {
        return WISH_BUSY;
    }
    m_firmware = {FIRMWARE_ANNOUNCED, pImage, uSize, 0, 0, s64NowUs + ANSWER_TIME};
    m_check.losePosition();
    return WISH_DONE;
}

void Interlock::onFirmwareAnswer(bool bOk, int nCode, int64_t s64NowUs)
{
    if (!bOk) {
        m_firmware = {};
        m_actions.tell(NOTICE_FIRMWARE_REFUSED, nCode);
        return;
    }
    m_firmware.eState = FIRMWARE_SENDING;
    onPortRoom(s64NowUs);
}

void Interlock::onPortRoom(int64_t s64NowUs)
{
    if (FIRMWARE_SENDING != m_firmware.eState) {
        return;
    }
    m_firmware.uTaken = m_firmware.uSent;
    const size_t uBlock = std::min(BLOCK_SIZE, m_firmware.uSize - m_firmware.uSent);
    if (0 == uBlock) {
        m_firmware.eState = FIRMWARE_SETTLING;
        m_firmware.s64ByUs = s64NowUs + SETTLE_TIME;
        return;
    }
    const char* const pBlock = m_firmware.pImage + m_firmware.uSent;
    m_firmware.uSent += uBlock;
    m_firmware.s64ByUs = s64NowUs + BLOCK_TIME;
    m_actions.toController(pBlock, uBlock);
}

void Interlock::onFirmwareTime(int64_t s64NowUs)
{
    if (!isSendingFirmware() || s64NowUs < m_firmware.s64ByUs) {
        return;
    }
    if (FIRMWARE_SETTLING == m_firmware.eState) {
        endFirmware(s64NowUs);
    } else {
        trip(TRIP_FIRMWARE, 0, s64NowUs);
    }
}

/** All is taken: the controller begins anew, and has to show that its beam is off. */
void Interlock::endFirmware(int64_t s64NowUs)
{
    forget(s64NowUs);
    startOff(s64NowUs);
}

void Interlock::forgetFirmware()
{
    const Firmware firmware = m_firmware;
    m_firmware = {};
    if (FIRMWARE_SETTLING == firmware.eState) {
        m_actions.tell(NOTICE_FIRMWARE_TAKEN, static_cast<int>(firmware.uTaken));
    } else if (FIRMWARE_NONE != firmware.eState) {
        m_actions.tell(NOTICE_FIRMWARE_STOPPED, static_cast<int>(firmware.uTaken));
    }
}
