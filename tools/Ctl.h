// What the programs share that give a command to a virtual device.
#pragma once

#include <string>

/**
 * Send the words, joined by blanks, as one command, and print the answer.
 * @param pUsage     printed when there are no words, or the first is an option
 * @param nWords     below 1 for none
 * @return the program's exit status: 0 done, 1 refused (the answer is the reason), 2 wrong usage or
 *         nobody to ask, told on standard error
 */
int runCtl(const char* pUsage, const std::string& strSocket, int nWords, char** apWords);
