// What an interlock lives among: a service, an operator and a controller that do anything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "ILanguage.h"
#include "Interlock.h"

/**
 * A service, an operator and a controller that mostly do what they should, and sometimes anything.
 * Complains as soon as one of the rules is broken.
 */
class RandomWorld : public IGuardActions
{
public:
    RandomWorld(const ILanguage& language, unsigned uSeed);

    void step();

    uint64_t m_u64Jobs = 0;
    uint64_t m_u64JobsDone = 0;
    uint64_t m_u64Trips = 0;
    uint64_t m_u64Lines = 0;
    uint64_t m_u64Repeats = 0; // by a service that was told to wait
    std::string m_strComplaint;

    void toController(const char* pBytes, size_t uLength) override;
    void cutBeam(const char* pBytes, size_t uLength) override;
    void toService(const char* pBytes, size_t uLength) override;
    void holdReset(bool /*bLow*/) override {}
    void tell(NOTICE_E eNotice, int nDetail) override;

private:
    static const size_t JOB_LINES = 60;

    unsigned pick(unsigned uCount)
    {
        return static_cast<unsigned>(m_random() % uCount);
    }
    void complain(const std::string& strText)
    {
        if (m_strComplaint.empty()) {
            m_strComplaint = strText;
        }
    }
    void stepService();
    void stepController();
    void stepOperator();
    void stepFault();
    void reply(const std::string& strReply)
    {
        m_interlock.onControllerBytes(strReply.data(), strReply.size(), m_s64NowUs);
    }
    void serve(const std::string& strBytes)
    {
        m_interlock.onServiceBytes(strBytes.data(), strBytes.size(), m_s64NowUs);
    }
    void answerLine();
    bool isJobLine(const std::string& strLine) const;
    std::string report();

    const ILanguage& m_language;
    Interlock m_interlock;
    std::mt19937 m_random;
    int64_t m_s64NowUs = 1000000;
    std::string m_strJob;
    std::vector<std::string> m_vecLine;

    std::deque<std::string> m_deqLine; // what the controller has not answered
    size_t m_uTaken = 0;               // job lines that it has carried out
    bool m_bPort = false;
    bool m_bBeam = false;
    bool m_bHeld = false;
    bool m_bGreet = false;
    int64_t m_s64BusyUs = 0; // until then it answers no line
    bool m_bOwes = false;    // a line's answer was no good
    unsigned m_uQuestions = 0;
    bool m_bTripped = false; // and nobody of the operator's has come since

    size_t m_uNext = 0;      // the line that the service sends next
    bool m_bWaiting = false; // for an answer
    bool m_bTold = false;    // to wait
    bool m_bPaused = false;  // the operator has paused
};
