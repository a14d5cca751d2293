// Reads a file that was given on the command line.
#pragma once

#include <string>

/**
 * The whole of it, but for one byte more than 32 MiB when it is longer: more is taken nowhere.
 * @return false after a line on standard error
 */
bool readInputFile(const std::string& strPath, std::string& strText);
