// The language of Grbl 1.1 in laser mode.
#pragma once

#include <string>

#include "ILanguage.h"

/**
 * Lines, answers, reports and push messages of Grbl 1.1.
 *
 * Lines go out without blanks and comments, which count in Grbl's buffer of 128 bytes. "G05"
 * becomes a straight move in machine coordinates with its feed. The pilot spot is an output of the
 * configuration's choice.
 */
class GrblLanguage : public ILanguage
{
public:
    /** @param strPilotOn, strPilotOff  lines that switch the pilot spot, without line ends */
    explicit GrblLanguage(const std::string& strPilotOn = "M8",
                          const std::string& strPilotOff = "M9");

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

private:
    std::string m_strPilotOn;
    std::string m_strPilotOff;
};
