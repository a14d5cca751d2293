// A job by random bytes, and what has to hold for each: what the check lets pass passes the guard.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>

#include "InterlockDesk.h"
#include "JobCheck.h"

/** Bytes from 128 on pick a line that mostly passes, others a piece of one, or what must not pass.
 */
inline std::string makeJob(const uint8_t* pData, size_t uSize)
{
    static const char* const PIECES[] = {
        "\n",   "\n",   "\n",     "\n",       "\n",
        "G0",   "G1",   "G2",     "G3",       "G4P1",
        "X",    "Y",    "Z",      "I",        "J",
        "R",    "F",    "S",      "X",        "Y",
        "0",    "1",    "10",     "50",       "99.9",
        "-1",   "-10",  ".5",     "600",      "1000",
        "G90",  "G91",  "G20",    "G21",      "M3",
        "M4",   "M5",   "M3S500", "G1F600X1", "G92X0",
        "G54",  "G55",  "M30",    "M8",       " ",
        "(a)",  "(",    ")",      ";c",       "%",
        "\r\n", "\t",   "!",      "~",        "$H",
        "G28",  "M104", "\xC3",   "7",        "F6000",
        "G17",  "X0Y0", "I10J0",  "XG1Y",     "(long comment that fills the line)"};
    static const char* const LINES[] = {"G0X10Y10\n",
                                        "G1F600X5\n",
                                        "M3S500\n",
                                        "M4S1\n",
                                        "M5\n",
                                        "G91\n",
                                        "G90\n",
                                        "X-1\n",
                                        "Y50\n",
                                        "S0\n",
                                        "\n",
                                        "(a)\n",
                                        "G1 X1.5 (b)\n",
                                        "G21\n",
                                        "G4P0.5\n",
                                        "G0Z1\n",
                                        "F6000\n",
                                        "X99\n",
                                        "G54\n",
                                        "G17\n",
                                        "M2\n",
                                        "G2X10Y10I0J5F60\n",
                                        "G3X0Y0R80\n"};
    const size_t uPieces = sizeof(PIECES) / sizeof(PIECES[0]);
    const size_t uLines = sizeof(LINES) / sizeof(LINES[0]);
    std::string strJob;
    for (size_t u = 0; u < uSize; ++u) {
        strJob += (pData[u] < 128) ? PIECES[pData[u] % uPieces] : LINES[pData[u] % uLines];
    }
    return strJob;
}

/** The guard with a job open, its lines sent one after the other. @return what it trips at, or ""
 */
inline std::string runAtGuard(const ILanguage& language, const std::string& strJob)
{
    InterlockDesk desk(language);
    desk.open(strJob);
    if (LEVEL_JOB != desk.m_interlock.getLevel()) {
        return "not opened";
    }
    for (size_t uPlace = 0; uPlace < strJob.size();) {
        const size_t uEnd = std::min(strJob.find('\n', uPlace), strJob.size());
        const std::string strLine = strJob.substr(uPlace, uEnd - uPlace);
        uPlace = uEnd + 1;
        desk.service(strLine + "\n\n");
        if (!desk.sent().empty()) {
            desk.controller("ok\n");
        }
        if (0 != desk.count(NOTICE_TRIP) || std::string::npos == desk.told().find("ok\n")) {
            return "the guard does not let pass: " + strLine;
        }
    }
    return "";
}

/** @return what does not hold, or "" */
inline std::string findFlaw(const ILanguage& language, const std::string& strJob, bool& bPassed)
{
    const JobCheck check(deskLimits(), language);
    std::string strMended;
    const JobReport report = check.check(strJob, &strMended);
    bPassed = report.passes();
    if (strJob.empty()) {
        return bPassed ? "a job without a byte passes" : "";
    }
    if (bPassed) {
        if (std::string strTrip = runAtGuard(language, strJob); !strTrip.empty()) {
            return strTrip;
        }
    }
    const JobReport mended = check.check(strMended, nullptr);
    if (mended.uRefused != report.uRefused - report.uMendable) {
        return "the mended copy has " + std::to_string(mended.uRefused) + " places refused, not " +
               std::to_string(report.uRefused - report.uMendable);
    }
    return mended.passes() ? runAtGuard(language, strMended) : "";
}
