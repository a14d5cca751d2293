// What the virtual controller board needs from a controller in any language.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "BeamLog.h"
#include "Motion.h"

/**
 * Knows nothing of ports and clocks: bytes and the time come in, answers are fetched.
 *
 * Not thread-safe; times are microseconds of one clock that never runs backwards.
 */
class IController
{
public:
    IController() = default;
    IController(const IController&) = delete;
    IController& operator=(const IController&) = delete;
    virtual ~IController() = default;

    /** @param trigger  carries out a command when the turn of its line comes */
    virtual void setTrigger(std::function<void(const std::string&)> trigger) = 0;

    /** Report to the sink what the beam goes over while light comes out; to nobody at first. */
    virtual void onBeam(BeamSink sink) = 0;

    /** Bytes from the wire; call advance() next. */
    virtual void receive(const std::string& strBytes, int64_t s64NowUs) = 0;

    /** Let moves go on and lines that waited for them be taken. */
    virtual void advance(int64_t s64NowUs) = 0;

    /** The next answer whose time has come; one answer is one write. @return false without one */
    virtual bool takeAnswer(int64_t s64NowUs, std::string& strText) = 0;

    /** When advance() or takeAnswer() is due; -1 when nothing is. */
    virtual int64_t nextDueUs(int64_t s64NowUs) const = 0;

    /** False while so many lines wait that the wire should push back. */
    virtual bool wantsInput() const = 0;

    /** The cable was pulled: what was on the wire is lost. The arm moves on. */
    virtual void dropWire() = 0;

    /** The reset line: as after power-up, except that the head stays where it is. */
    virtual void reset(int64_t s64NowUs) = 0;

    /** It has booted, after power-up or a reset by a line: it begins anew and greets if it does. */
    virtual void booted(int64_t s64NowUs) = 0;

    /** Carry out a command before line number nLine (from 1, over all lines answered). */
    virtual void addTrigger(int nLine, const std::string& strCommand) = 0;

    /**
     * Commands that concern the protocol: the faults of FaultPlan and those of the language.
     * @return false when it is none of them or makes no sense
     */
    virtual bool runCommand(const std::string& strCommand, int64_t s64NowUs) = 0;

    /** The bytes behind the last line end, of a line that is not whole yet. */
    virtual std::string getInput() const = 0;

    /** Where the head is, in millimetres. */
    virtual Point getPosition() const = 0;

    virtual bool isPilotOn() const = 0;

    virtual const BeamLog& getBeam() const = 0;

    /** One line for people and tests: position, flags, lines answered. */
    virtual std::string describe() const = 0;
};
