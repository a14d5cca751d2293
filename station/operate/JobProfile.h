// How the time of a job is spread over its lines.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Configuration.h"

/** By the guard's own estimate of each line, scaled to what the check's plan says of the whole. */
class JobProfile
{
public:
    /** @param dSeconds  of the whole job, as its check tells it */
    JobProfile(const std::string& strText, const Configuration& configuration, double dSeconds);

    size_t getLines() const
    {
        return m_uLines;
    }

    /** The part of the time that is over when so many lines are through, 0 to 1. */
    double getShare(size_t uLine) const;

    double getSeconds() const
    {
        return m_dSeconds;
    }

private:
    size_t m_uLines = 0;
    size_t m_uStep = 1; // lines from one entry to the next
    double m_dSeconds;
    std::vector<double> m_vecShare; // behind each step; the last is 1
};
