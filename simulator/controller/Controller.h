// The virtual motion controller itself: lines in, answers out, an arm that moves meanwhile.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "AnswerQueue.h"
#include "BeamLog.h"
#include "ControllerJournal.h"
#include "ControllerSettings.h"
#include "FaultPlan.h"
#include "FirmwareLoader.h"
#include "Grammar.h"
#include "IController.h"
#include "LineTriggers.h"
#include "Motion.h"
#include "VirtualArm.h"

/**
 * The controller in the arm's own language.
 *
 * Every line is answered once, positioning moves and homing a second time when the arm is there. A
 * second line end right behind a line belongs to that line, unless the settings say otherwise; any
 * other empty line is answered "ok". The bytes of a hold and a reset act as they come. The rest is
 * in README.md.
 */
class Controller : public IController
{
public:
    Controller(const ControllerSettings& settings, ControllerJournal& journal);

    void setTrigger(std::function<void(const std::string&)> trigger) override;
    void onBeam(BeamSink sink) override;
    void receive(const std::string& strBytes, int64_t s64NowUs) override;
    void advance(int64_t s64NowUs) override;
    bool takeAnswer(int64_t s64NowUs, std::string& strText) override;
    int64_t nextDueUs(int64_t s64NowUs) const override;
    bool wantsInput() const override;
    void dropWire() override;
    void reset(int64_t s64NowUs) override;
    void booted(int64_t s64NowUs) override;
    void addTrigger(int nLine, const std::string& strCommand) override;

    /**
     * Besides the faults of FaultPlan: "hold", "go", "once on", "once off", "say TEXT", "mute",
     * "unmute", "alarm-now CODE", "restart".
     */
    bool runCommand(const std::string& strCommand, int64_t s64NowUs) override;

    std::string getInput() const override
    {
        return m_strInput;
    }
    const Motion& getMotion() const
    {
        return m_arm.getMotion();
    }
    Point getPosition() const override
    {
        return m_arm.getMotion().getPosition();
    }
    bool isPilotOn() const override
    {
        return m_arm.isPilotOn();
    }
    const BeamLog& getBeam() const override
    {
        return m_arm.getBeam();
    }
    std::string describe() const override;

private:
    void takeByte(char c, int64_t s64NowUs);
    void hold(bool bHeld, int64_t s64NowUs);
    void softReset(int64_t s64NowUs);
    void processLines(int64_t s64NowUs);
    bool mustWait(const ParsedLine& line) const;
    void processLine(const std::string& strLine, int64_t s64NowUs);
    std::string answerFor(const ParsedLine& line, const Fault& fault, int64_t s64NowUs);
    std::string execute(const ParsedLine& line, int64_t s64NowUs);
    std::string carryOut(const ParsedLine& line);
    std::string lockWith(const std::string& strAnswer);
    void endMove(int64_t s64NowUs);
    void tellStatus(int64_t s64NowUs);

    ControllerSettings m_settings;
    ControllerJournal& m_journal;
    AnswerQueue m_answers;
    LineTriggers m_triggers;
    FaultPlan m_faultPlan;
    FirmwareLoader m_loader;
    VirtualArm m_arm;

    std::string m_strInput;            // the line that is coming in, at most MAX_INPUT bytes
    bool m_bAfterLine = false;         // the next line end belongs to the line before it
    std::deque<std::string> m_deqLine; // lines that wait; bounded by wantsInput()

    int m_nLines = 0;           // lines whose turn has come
    unsigned m_uWireEpoch = 0;  // counts dropWire(), for the line whose trigger pulled the cable
    bool m_bOnce = false;       // no second answers
    bool m_bHoldTold = false;   // the client has been told status 1
    bool m_bLocked = false;     // refuses everything until $X
    int64_t m_s64StatusUs = -1; // when the next status is told; -1 at rest
};
