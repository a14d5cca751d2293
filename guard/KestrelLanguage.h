// The language of the arm's own controller: ok, done, error, status and alarm.
#pragma once

#include "ILanguage.h"

/**
 * The language that the print service speaks, too: what the service sends goes out as it is.
 *
 * There are no reports: that the beam is off is told by the greeting behind a reset, that all
 * motion has ended by the answer to M18, which waits for it.
 */
class KestrelLanguage : public ILanguage
{
public:
    Reply parse(const char* pLine, size_t uLength) const override;
    AllowedWords getWords() const override;
    double getPowerUpFeed() const override;
    const char* getBeamOff() const override;
    const char* getLaserOff() const override;
    const char* getHold() const override;
    const char* getResume() const override;
    const char* getUnlock() const override;
    const char* getHome() const override;
    const char* getPilot(bool bOn) const override;
    bool isPilotOffByReset() const override;
    const char* getQuestion() const override;
    const char* getFirmwareLine() const override;
    const char* getProbe() const override;
    const char* getSettingsLine(size_t uIndex) const override;
    bool hasReports() const override;
    bool isResumeAnswered() const override;
    bool isHomeAnsweredOnce() const override;
    bool needsLaserMode() const override;
    size_t getBufferSize() const override;
    size_t encodeLine(const char* pText, size_t uLength, const GcodeLine& line, char* pOut,
                      size_t uRoom) const override;
    size_t encodeMove(const char* pText, size_t uLength, const GcodeLine& line, char* pOut,
                      size_t uRoom) const override;
};
