// What the programs that send a command to a virtual device share.
#pragma once

#include <string>

/**
 * Send the words, joined by blanks, as one command, and print the answer.
 * @param pUsage     printed when there are no words, or the first is an option
 * @param nWords     below 1 for none
 * @return the program's exit status: 0 done, 1 refused (the answer is the reason), 2 wrong usage or
 *         nothing to ask, reported on standard error
 */
int runCtl(const char* pUsage, const std::string& strSocket, int nWords, char** apWords);
