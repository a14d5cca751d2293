// What a line of the service's is by its words.
#pragma once

#include <cstddef>

#include "GcodeLine.h"

/** Whether a line is exactly that, blanks at its end aside. */
bool isText(const char* pText, size_t uLength, const char* pOther);

/** Whether it switches the pilot spot. */
bool isPilot(const char* pText, size_t uLength);

/** Whether it is homing or a positioning move, which get two answers. */
bool isMove(const char* pText, size_t uLength);

/** "M18", with "S0" off. @return 0 or 1; -1 when it is anything else */
int parsePilot(const char* pText, size_t uLength);

/** Whether a line is a positioning move and nothing besides. */
bool isMoveLine(const GcodeLine& line);
