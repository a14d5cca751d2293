// The virtual motion controller itself: lines in, answers out, an arm that moves meanwhile.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "BeamLog.h"
#include "FaultPlan.h"
#include "FirmwareLoader.h"
#include "Grammar.h"
#include "Motion.h"
#include "WireLog.h"

/** How a controller behaves; times in microseconds. Controllers differ in the habits. */
struct ControllerSettings
{
    bool bAnswerEmptyLines = false; // a second line end behind a line is a line as well
    bool bAlarmKeepsLaser = false;  // else it is off, as in a hold
    bool bHoldKeepsLaser = false;
    bool bResetLaserOn = false; // the reset line switches the laser on
    bool bPowerUpLaserOn = false;
    bool bPilotOff = false; // the pilot spot is off at power-up and after a reset

    double dSpeedUp = 1;               // the arm moves that many times faster
    int64_t s64SettleUs = 100000;      // least time between a move's two answers
    int64_t s64AnswerUs = 0;           // what each line takes it to answer
    int64_t s64ImageQuietUs = 1000000; // silence that ends a firmware image of unknown length
    Point powerUpPosition{};           // where the head stands, in millimetres
    std::string strImagePath;          // where a received firmware image is kept
};

/**
 * Knows nothing of ports and clocks: bytes and the time come in, answers are fetched.
 *
 * Every line is answered once, positioning moves and homing a second time when the arm is there. A
 * second line end right behind a line belongs to that line, unless the settings say otherwise; any
 * other empty line is answered "ok". The bytes of a hold and a reset act as they come. README.md
 * tells the rest. Not thread-safe; times are microseconds of one clock.
 */
class Controller
{
public:
    Controller(const ControllerSettings& settings, WireLog& wireLog);

    /** @param trigger  carries out the instruction of a line() when that line's turn comes */
    void setTrigger(std::function<void(const std::string&)> trigger);

    /** Bytes from the wire; call advance() next. */
    void receive(const std::string& strBytes, int64_t s64NowUs);

    /** Let moves go on and lines that waited for them be taken. */
    void advance(int64_t s64NowUs);

    /** The next answer whose time has come; one answer is one write. @return false without one */
    bool takeAnswer(int64_t s64NowUs, std::string& strText);

    /** When advance() or takeAnswer() is due; -1 when nothing is. */
    int64_t nextDueUs(int64_t s64NowUs) const;

    /** False while so many lines wait that the wire should push back. */
    bool wantsInput() const;

    /** Forget what is in the lines: the cable was pulled. The arm moves on. */
    void dropWire();

    /** The reset line: as after power-up, except that the head stays where it is. */
    void reset(int64_t s64NowUs);

    /** Carry out an instruction before line number nLine (from 1, over all lines answered). */
    void addTrigger(int nLine, const std::string& strInstruction);

    /**
     * Instructions that concern the protocol: the faults of FaultPlan, "hold", "go", "once on",
     * "once off", "say TEXT", "mute", "unmute", "alarm-now CODE", "restart".
     * @return false when it is none of them or makes no sense
     */
    bool instruct(const std::string& strInstruction, int64_t s64NowUs);

    const Motion& getMotion() const
    {
        return m_motion;
    }
    bool isPilotOn() const
    {
        return m_bPilotOn;
    }
    const BeamLog& getBeam() const
    {
        return m_beamLog;
    }

    /** One line for people and tests: position, flags, lines answered. */
    std::string describe() const;

private:
    struct Answer
    {
        int64_t s64DueUs;
        std::string strText;
    };

    void takeByte(char c, int64_t s64NowUs);
    void hold(bool bHeld, int64_t s64NowUs);
    void softReset(int64_t s64NowUs);
    void forgetJob();
    void alarm();
    void tellBeam(int64_t s64NowUs);
    void updateBeam(int64_t s64AtUs, const Laser& laser, bool bMoving);
    void processLines(int64_t s64NowUs);
    bool mustWait(const Command& command) const;
    void processLine(const std::string& strLine, int64_t s64NowUs);
    std::string answerFor(const Command& command, const Fault& fault, int64_t s64NowUs);
    std::string execute(const Command& command, int64_t s64NowUs);
    std::string carryOut(const Command& command);
    std::string lockWith(const std::string& strAnswer);
    void say(int64_t s64DueUs, const std::string& strText);
    void sendAnswer(const std::string& strText, const Fault& fault, int64_t s64NowUs);
    void endMove(int64_t s64NowUs);

    ControllerSettings m_settings;
    WireLog& m_wireLog;
    BeamLog m_beamLog;
    std::function<void(const std::string&)> m_trigger;
    std::multimap<int, std::string> m_mapTrigger;
    FaultPlan m_faultPlan;
    Motion m_motion;
    FirmwareLoader m_loader;

    std::string m_strInput;            // the line that is coming in, at most MAX_INPUT bytes
    bool m_bAfterLine = false;         // the next line end belongs to the line before it
    std::deque<std::string> m_deqLine; // lines that wait; bounded by wantsInput()
    std::deque<Answer> m_deqAnswer;

    int m_nLines = 0;          // lines whose turn has come
    unsigned m_uWireEpoch = 0; // counts dropWire(), for the line whose trigger pulled the cable
    bool m_bOnce = false;      // no second answers
    bool m_bHeld = false;      // stands still and takes no line until resumed
    bool m_bHoldTold = false;  // the client has been told status 1
    bool m_bLocked = false;    // refuses everything until $X
    bool m_bRelative = false;
    std::deque<bool> m_deqHoming; // per positioning move under way: whether it is a homing
    bool m_bHomed = false;
    bool m_bMuted = false; // says nothing at all
    bool m_bPilotOn;
    Laser m_laser; // as the lines so far tell it, in front of the queue
    double m_dFeed;
    Answer* m_pEndAnswer = nullptr; // while a move's end is handled: what an M18 behind it joins
};
