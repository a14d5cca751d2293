// A virtual motion controller that speaks Grbl 1.1: its wire, its states, its laser.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "ControllerSettings.h"
#include "FaultPlan.h"
#include "GrblInterpreter.h"
#include "GrblPlanner.h"
#include "GrblSettings.h"
#include "IController.h"
#include "LineTriggers.h"
#include "WireLog.h"

/**
 * Takes bytes into a receive buffer of 128, the real-time ones past it, and works lines off one
 * after the other: the next one when the one before is answered. grbl/README.md tells the language.
 */
class GrblController : public IController
{
public:
    static constexpr size_t RECEIVE_BUFFER = 128;
    static constexpr size_t LINE = 80; // significant characters, of which one too many

    /** The first greeting comes with the first advance(). */
    GrblController(const ControllerSettings& settings, WireLog& wireLog);

    /** As "$n=value" before power-up. @return false for what "$n=value" refuses */
    bool preset(int nNumber, double dValue);

    void setTrigger(std::function<void(const std::string&)> trigger) override;
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
    void addTrigger(int nLine, const std::string& strInstruction) override;
    bool instruct(const std::string& strInstruction, int64_t s64NowUs) override;
    Point getPosition() const override;
    bool isPilotOn() const override
    {
        return m_bCoolant;
    }
    const BeamLog& getBeam() const override
    {
        return m_beamLog;
    }
    std::string describe() const override;

private:
    enum STATE_E
    {
        STATE_IDLE,
        STATE_RUN,
        STATE_HOLD,
        STATE_JOG,
        STATE_ALARM,
        STATE_DOOR,
        STATE_CHECK,
        STATE_HOME,
        STATE_SLEEP
    };

    struct Answer
    {
        int64_t s64DueUs;
        std::string strText;
    };

    // Bytes and lines.
    void takeByte(char c);
    bool takeRealtime(unsigned char uByte);
    void takeOverride(unsigned char uByte);
    bool readLine(std::string& strLine);
    void processLine(const std::string& strLine);
    int carryOut(const std::string& strLine);
    int carryOutDollar(const std::string& strLine);
    int storeSetting(const std::string& strLine);
    int storeStartupLine(const std::string& strLine);
    int jog(const std::string& strLine);
    void toggleCheck();

    // What happens in time.
    void work();
    int64_t nextEventUs() const;
    double getLastSegment() const;
    void stepTo(int64_t s64Us);
    bool isSuspended() const;
    void workStates();
    bool workAction(GrblAction& action);
    bool isSynced() const;
    bool pause();
    void beginHold(STATE_E eState);
    void endHold();
    void cancelJog();
    void beginHoming();
    void endHoming();
    bool isOutside(const Point& target) const;

    // Resets and alarms.
    void begin(int64_t s64GreetUs, bool bLock);
    void softReset();
    void greet();
    void alarm(int nCode, bool bNeedsReset);
    void applyLimits();

    // What is told.
    void say(const std::string& strText);
    void sendAnswer(const std::string& strText, const Fault& fault);
    void report();
    std::string formatState() const;
    Beam getLight() const;
    void tellBeam();

    ControllerSettings m_options;
    WireLog& m_wireLog;
    BeamLog m_beamLog;
    LineTriggers m_triggers;
    FaultPlan m_faultPlan;

    GrblSettings m_settings;
    GrblInterpreter m_interpreter;
    GrblPlanner m_planner;
    std::map<int, std::string> m_mapStartup{{0, ""}, {1, ""}};

    int64_t m_s64NowUs = 0;
    STATE_E m_eState = STATE_IDLE;
    bool m_bNeedsReset = false; // an alarm that only a reset ends
    bool m_bHoldDone = false;   // held or door: the head stands
    bool m_bJogCancel = false;  // the hold is that of a jog
    bool m_bWasIdle = false;    // resume leads back to rest
    bool m_bSpindleStopped = false;
    bool m_bToggleStop = false; // the override 0x9E
    bool m_bHomed = false;
    bool m_bMuted = false;
    bool m_bGreeted = false;

    // Moments; -1 when nothing is due.
    int64_t m_s64GreetUs = 0;     // nothing is taken before
    int64_t m_s64SlowDownUs = -1; // when a hold takes effect
    int64_t m_s64StandsUs = -1;   // when the head that stands has been noticed
    int64_t m_s64DwellUs = -1;
    int64_t m_s64HomingUs = -1;
    int64_t m_s64WireUs = 0; // until then the wire is busy with answers

    std::string m_strReceived;          // at most RECEIVE_BUFFER
    std::string m_strLine;              // significant characters so far
    size_t m_uLine = 0;                 // how many there were, more than m_strLine keeps
    char m_cComment = '\0';             // '(' or ';' within one
    std::deque<GrblAction> m_deqAction; // of the line in work
    Fault m_fault;                      // of the line in work
    bool m_bLineInWork = false;
    std::deque<Answer> m_deqAnswer;

    SPINDLE_E m_eSpindle = SPINDLE_OFF; // as output
    double m_dPower = 0;
    bool m_bCoolant = false;
    Point m_origin{}; // of the machine positions, where the head really is at 0
    Point m_homingFrom{};
    int64_t m_s64HomingFromUs = 0;

    int m_nFeedShare = 100;
    int m_nRapidShare = 100;
    int m_nSpindleShare = 100;
    int m_nUntilOffset = 0; // reports until WCO is told again
    int m_nUntilShares = 0; // and Ov
    int m_nLines = 0;
};
