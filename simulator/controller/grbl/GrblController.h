// A virtual motion controller that speaks Grbl 1.1: its wire, its lines, its resets.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "ControllerJournal.h"
#include "ControllerSettings.h"
#include "FaultPlan.h"
#include "GrblAction.h"
#include "GrblInterpreter.h"
#include "GrblMachine.h"
#include "GrblReceiveBuffer.h"
#include "GrblSettings.h"
#include "GrblStatusReport.h"
#include "GrblSystemCommands.h"
#include "GrblTransmitter.h"
#include "IController.h"
#include "LineTriggers.h"

/**
 * Takes bytes into a receive buffer, real-time ones past it, and works through the lines: each when
 * the one before has been answered. grbl/README.md describes the language.
 */
class GrblController : public IController
{
public:
    /** The first greeting comes with the first advance(). */
    GrblController(const ControllerSettings& settings, ControllerJournal& journal);

    /** As "$n=value" before power-up. @return false for what "$n=value" refuses */
    bool preset(int nNumber, double dValue);

    void setTrigger(std::function<void(const std::string&)> trigger) override;
    void onBeam(BeamSink sink) override
    {
        m_machine.onBeam(std::move(sink));
    }
    void receive(const std::string& strBytes, int64_t s64NowUs) override;
    void advance(int64_t s64NowUs) override;
    bool takeAnswer(int64_t s64NowUs, std::string& strText) override;
    int64_t nextDueUs(int64_t s64NowUs) const override;
    bool wantsInput() const override
    {
        return true; // what does not fit is lost
    }
    void dropWire() override;
    void reset(int64_t s64NowUs) override;
    void booted(int64_t s64NowUs) override;
    std::string getInput() const override
    {
        return m_receiveBuffer.getInput();
    }
    void addTrigger(int nLine, const std::string& strCommand) override;

    /**
     * Besides the faults of FaultPlan: "hold", "go", "say TEXT", "mute", "unmute",
     * "alarm-now CODE", "restart".
     */
    bool runCommand(const std::string& strCommand, int64_t s64NowUs) override;

    Point getPosition() const override
    {
        return m_machine.getPosition();
    }
    bool isPilotOn() const override
    {
        return m_machine.isCoolantOn();
    }
    const BeamLog& getBeam() const override
    {
        return m_machine.getBeam();
    }
    std::string describe() const override;

private:
    // Bytes and lines.
    void takeByte(char c);
    bool takeRealtime(unsigned char uByte);
    void takeOverride(unsigned char uByte);
    void cancelJog();
    void processLine(const GrblReceiveBuffer::Line& line);
    int carryOut(const std::string& strLine);

    // What happens in time.
    void work();
    bool workAction();
    void update();
    int64_t nextEventUs() const;

    // Resets and alarms.
    void begin(int64_t s64GreetUs, bool bLock);
    void softReset();
    void greet();
    void alarm(int nCode, bool bNeedsReset);

    void say(const std::string& strText);
    void report();

    ControllerJournal& m_journal;
    LineTriggers m_triggers;
    FaultPlan m_faultPlan;

    GrblSettings m_settings;
    GrblInterpreter m_interpreter;
    GrblMachine m_machine;
    GrblReceiveBuffer m_receiveBuffer;
    GrblTransmitter m_transmitter;
    GrblStatusReport m_statusReport;
    GrblSystemCommands m_systemCommands;

    bool m_bGreeted = false;
    int64_t m_s64GreetUs = 0; // nothing is taken before

    std::deque<GrblAction> m_deqAction; // of the line in work
    Fault m_fault;                      // of the line in work
    bool m_bLineInWork = false;         // neither answered nor swept away by a reset
    int m_nLines = 0;
};
