// Commands that are given at set times.
#pragma once

#include <functional>
#include <string>
#include <vector>

/**
 * Lines "SECONDS COMMAND", seconds since the start with decimals, below a million; empty lines and
 * such that start with '#' are skipped. Commands of the same time keep their order.
 */
class TimedScript
{
public:
    /** Takes a line that does not begin with a time. @return false to refuse it */
    using Untimed = std::function<bool(const std::string&)>;

    /**
     * Read a file.
     * @param untimed   null refuses lines without a time
     * @param strError  why it failed, without a line end
     */
    bool load(const std::string& strPath, const Untimed& untimed, std::string& strError);

    /** One more command, behind those of the same time. */
    void add(double dSeconds, const std::string& strCommand);

    /** The next command that is due by now; empty when there is none. */
    std::string takeDue(double dSeconds);

    /** Seconds since the start at which the next one is due; negative when there is none. */
    double getNext() const;

private:
    struct Line
    {
        double dSeconds;
        std::string strCommand;
    };
    std::vector<Line> m_vecLine; // by time
    size_t m_uNext = 0;
};
