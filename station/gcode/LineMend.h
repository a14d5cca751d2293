// What can be taken out of a line of a job without changing what it does.
#pragma once

#include <string>

/**
 * The line without its comments, carriage returns at its end, tabs, and a byte order mark; empty
 * when it begins with '%'. A comment that does not end is kept, and so is all else.
 * @param strLine  without its line end
 */
std::string mendLine(const std::string& strLine);
