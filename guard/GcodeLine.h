// One line of G-code taken apart: which words it has.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

/** Why a line must not pass. */
enum LINE_FAULT_E
{
    LINE_GOOD,
    LINE_LONG,      // more significant characters than a controller takes
    LINE_BYTE,      // a byte outside printable ASCII
    LINE_REAL_TIME, // '!', '~' or '?', which act wherever they stand, in a comment too
    LINE_COMMENT,   // a parenthesis too many or too few
    LINE_WORD,      // not a letter and a decimal number
    LINE_TWICE,     // a word or two of a kind that may stand once
    LINE_FORBIDDEN, // a word outside the allowed set
    LINE_LASER,     // a word that can switch the beam on where it has to stay off
    LINE_BOX,       // leaves the box
    LINE_FEED,      // feed missing, not above zero, or above the limit
    LINE_POWER,     // power below zero or above the limit
    LINE_ARC,       // an arc whose centre does not fit its ends
    LINE_POSITION   // moves while nobody knows where the head is
};

/** A name for people, e.g. "box". */
const char* getLineFaultName(LINE_FAULT_E eFault);

/**
 * The words of a line. Plain data, no allocation.
 *
 * Blanks anywhere and comments, "(...)" and ";...", do not count. Letters are taken in either case.
 */
struct GcodeLine
{
    static const size_t MAX_TEXT = 79; // significant characters; the 80th is refused by Grbl 1.1
    static const size_t MAX_CODES = 8;

    std::array<char, MAX_TEXT + 1>
        acText{}; // the significant characters, in upper case, and a zero
    size_t uLength = 0;

    std::array<int, MAX_CODES> anG{}; // tenths: G92.1 is 921
    size_t uG = 0;
    std::array<int, MAX_CODES> anM{};
    size_t uM = 0;

    /** Whether the line has a word other than G and M. */
    bool has(char cLetter) const
    {
        return 0 != (u32Has & (1U << static_cast<unsigned>(cLetter - 'A')));
    }
    /** Its value; 0 when it is missing. */
    double get(char cLetter) const
    {
        return adValue[static_cast<size_t>(cLetter - 'A')];
    }
    bool hasG(int nTenths) const;
    bool hasM(int nTenths) const;

    std::array<double, 26> adValue{};
    uint32_t u32Has = 0;
};

/**
 * Take a line apart; any bytes are fine. Never blocks, allocates or logs.
 * @param pText  the line without its line end, not ended by a zero
 * @param line   the words; of no meaning when the result is not LINE_GOOD
 */
LINE_FAULT_E parseGcode(const char* pText, size_t uLength, GcodeLine& line);
