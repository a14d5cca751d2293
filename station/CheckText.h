// What the check of a job tells, for people and for programs.
#pragma once

#include <string>

#include "JobCheck.h"

/** The check of a file; what a mended copy came to where one was asked for. */
struct CheckResult
{
    std::string strFile;
    JobReport report;
    std::string strMendedFile; // empty: none
    JobReport mended;

    /** Whether the job passes, or its mended copy where one was asked for. */
    bool passes() const
    {
        return strMendedFile.empty() ? report.passes() : mended.passes();
    }
};

/** Lines for people: findings first, each as "file:line: ...". */
std::string toText(const CheckResult& result);

/** One JSON object, with a line end. */
std::string toJson(const CheckResult& result);
