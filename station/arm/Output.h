// What a command prints.
#pragma once

#include <string>

#include "ExitStatus.h"
#include "StationClient.h"

/** To standard output, at once. @return false when it does not take it, e.g. a full disk */
bool print(const std::string& strText);

/** A line on standard error, in the program's name. */
void complain(const std::string& strText);

/** The status of an answer that is not good, told on standard error; with bJson on both. */
EXIT_STATUS_E refuse(const StationAnswer& answer, bool bJson);
