// Commands that are given at set times.
#pragma once

#include <string>
#include <vector>

/**
 * Lines "SECONDS COMMAND", seconds since the start with decimals; empty lines and such that start
 * with '#' are skipped. Lines of the same time keep their order.
 */
class TimedScript
{
public:
    /** @return false when the file cannot be read, or a line lacks its time; named on standard
     * error */
    bool load(const std::string& strPath);

    /** The next command that is due by now; empty when there is none. */
    std::string due(double dSeconds);

    /** Seconds since the start at which the next one is due; negative when there is none. */
    double next() const;

private:
    struct Line
    {
        double dSeconds;
        std::string strCommand;
    };
    std::vector<Line> m_vecLine; // by time
    size_t m_nNext = 0;
};
