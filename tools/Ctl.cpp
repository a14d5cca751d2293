// What the programs that send a command to a virtual device share.
#include "Ctl.h"

#include <cstdio>

#include "ControlClient.h"

int runCtl(const char* pUsage, const std::string& strSocket, int nWords, char** apWords)
{
    if (nWords < 1 || '-' == apWords[0][0]) {
        fputs(pUsage, stderr);
        return 2;
    }
    std::string strCommand = apWords[0];
    for (int i = 1; i < nWords; ++i) {
        strCommand += std::string(" ") + apWords[i];
    }
    ControlClient client;
    if (!client.connect(strSocket)) {
        perror(strSocket.c_str());
        return 2;
    }
    std::string strAnswer;
    if (!client.ask(strCommand, strAnswer)) {
        fprintf(stderr, "%s: no answer\n", strSocket.c_str());
        return 2;
    }
    puts(strAnswer.c_str());
    return 0 == strAnswer.compare(0, 6, "error:") ? 1 : 0;
}
