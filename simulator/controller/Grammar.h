// The virtual controller's language: what the lines that it receives mean.
#pragma once

#include <string>

enum LINE_KIND_E
{
    LINE_KIND_ACCEPTED, // no motion: modal words, comments, the laser, a dwell
    LINE_KIND_MOVE,     // G0, G1, G2, G3 or bare axis words: streamed, answered once
    LINE_KIND_POSITION, // G05: answered when accepted and again when the arm is there
    LINE_KIND_HOME,     // $H: the same
    LINE_KIND_UNLOCK,   // $X
    LINE_KIND_RESUME,   // ~
    LINE_KIND_SPOT,     // M18: pilot spot, S0 off, else on; waits for the motion before it
    LINE_KIND_LOADER,   // M21: a firmware image follows
    LINE_KIND_REFUSED   // see nError
};

enum LASER_E
{
    LASER_AS_IT_IS,
    LASER_ON, // M3, M4
    LASER_OFF // M5
};

// Bytes that act when they come, wherever they stand; they are no part of a line.
static const char BYTE_HOLD = '!';
static const char BYTE_RESET = 0x18;

// Why a line is refused: the codes of the answer "error:N".
static const int ERROR_NOT_UNDERSTOOD = 1;
static const int ERROR_BAD_NUMBER = 2; // locks the controller until $X
static const int ERROR_UNKNOWN_DOLLAR = 3;
static const int ERROR_OUT_OF_RANGE = 4;
static const int ERROR_TOO_LONG = 6;
static const int ERROR_LOCKED = 9;

static const size_t MAX_LINE = 255; // bytes without the line end

static const double MAX_TRAVEL_MM = 2000; // a position in micrometres fits 32 bits

/** A line's meaning. Positions in millimetres, feed in millimetres per minute. */
struct ParsedLine
{
    LINE_KIND_E eKind = LINE_KIND_ACCEPTED;
    int nError = 0; // with LINE_KIND_REFUSED

    bool bAbsolute = false; // G90: positions from the origin, from this line on
    bool bRelative = false; // G91: positions from where the head is
    bool bHasX = false;
    bool bHasY = false;
    bool bHasZ = false;
    bool bHasF = false;
    bool bHasS = false;
    bool bDwell = false; // G4, dP seconds
    LASER_E eLaser = LASER_AS_IT_IS;
    double dX = 0;
    double dY = 0;
    double dZ = 0;
    double dF = 0;
    double dS = 0;
    double dP = 0;
};

/**
 * Read one line, without its line end. Any bytes are fine.
 *
 * Words are a letter and a decimal number ("X-12.50"; no exponent), blanks anywhere between words,
 * letters in either case; "(...)" and ";..." are comments. All words of a line are carried out:
 * feed rate and laser before the dwell, the dwell before the motion. What cannot be combined is
 * refused: a word given twice, two motions, two laser words, a dwell and a motion, M18 and M21 with
 * others.
 */
ParsedLine parseLine(const std::string& strLine);
