// What goes wrong with the next lines that the virtual controller takes.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

enum FAULT_E
{
    FAULT_NONE,
    FAULT_NO_ANSWER,
    FAULT_LATE,    // nValue: milliseconds
    FAULT_HALF,    // the first half of the answer, the rest never
    FAULT_DOUBLE,  // the answer twice, as separate writes
    FAULT_GARBAGE, // 64 bytes without a meaning
    FAULT_REFUSE,  // nValue: error code; the line is not carried out
    FAULT_ALARM,   // nValue: alarm code; the same, the arm stops and the controller locks
    FAULT_STATUS   // nValue: status code, sent in front of the ordinary answer
};

struct Fault
{
    FAULT_E eKind = FAULT_NONE;
    int nValue = 0;
};

/** A first-in, first-out list of faults; each line that is taken uses up one. */
class FaultPlan
{
public:
    /**
     * Append a fault, in words: "no-answer", "half", "double", "garbage", each with an optional
     * count; "late MS", "refuse CODE", "alarm CODE", "status CODE", the same.
     * @return false when the words make no sense; nothing is appended then
     */
    bool add(const std::vector<std::string>& vecWord);

    /** The fault for the next line. */
    Fault take();

    void clear()
    {
        m_deqEntry.clear();
    }

private:
    struct Entry
    {
        Fault fault;
        int nLeft;
    };

    std::deque<Entry> m_deqEntry;
};

/** 64 bytes without a meaning, from u8Lowest up to 0xff; u8Lowest is the first of them. */
std::string makeGarbage(uint8_t u8Lowest);

/** A whole number of at most nine digits; false for anything else. */
bool parseCount(const std::string& strText, int& nValue);

/** The words between blanks. */
std::vector<std::string> splitWords(const std::string& strText);
