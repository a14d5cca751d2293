// Dialogues with the motion controller, written down as "> $H" and "< ok".
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class UART;

/**
 * A dialogue: lines that the service sends and lines that the controller answers, in their order.
 *
 * In a text, a dialogue is a block between "```transcript" and "```", named by the heading before
 * it; a text without such a block is one dialogue. Lines that begin with neither ">" nor "<" are
 * remarks.
 */
class Transcript
{
public:
    struct Step
    {
        bool bSent;          // by the service
        std::string strText; // without mark and line end; trailing blanks count
    };

    static std::vector<Transcript> parse(const std::string& strText);

    const std::string& getName() const
    {
        return m_strName;
    }
    const std::vector<Step>& getSteps() const
    {
        return m_vecStep;
    }

    /** As it would be written in a text. */
    std::string toText() const;

    void add(bool bSent, const std::string& strText)
    {
        m_vecStep.push_back({bSent, strText});
    }

    /**
     * Hold the dialogue over an open port, in the service's place.
     * @param s32Seconds  how long to wait for each answer
     * @param strTrouble  on failure: what was expected and what came
     * @return true when every answer came as written
     */
    bool play(UART& uart, int32_t s32Seconds, std::string& strTrouble) const;

private:
    std::string m_strName;
    std::vector<Step> m_vecStep;
};
