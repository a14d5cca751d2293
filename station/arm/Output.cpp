// What a command prints.
#include "Output.h"

#include <cstdio>

bool print(const std::string& strText)
{
    return fwrite(strText.data(), 1, strText.size(), stdout) == strText.size() &&
           0 == fflush(stdout);
}

void complain(const std::string& strText)
{
    fprintf(stderr, "kestrel-arm: %s\n", strText.c_str());
}

EXIT_STATUS_E refuse(const StationAnswer& answer, bool bJson)
{
    complain(answer.strError);
    if (bJson && answer.json.is_object()) {
        (void)print(answer.json.dump() + "\n"); // the problem document; the status tells as much
    }
    if (0 == answer.nStatus) {
        return STATUS_NO_ANSWER;
    }
    return "unauthorized" == answer.getProblem() ? STATUS_UNUSABLE : STATUS_REFUSED;
}
