// Commands that wait for the turn of a certain line.
#pragma once

#include <functional>
#include <map>
#include <string>

/** Lines are counted from 1, over all that are answered. Not thread-safe. */
class LineTriggers
{
public:
    /** @param trigger  carries out a command; has to be set before the first line is due */
    void setTrigger(std::function<void(const std::string&)> trigger);

    void add(int nLine, const std::string& strCommand);

    /**
     * Carry out what waits for that line, in the order it was added, once. A command may add
     * others and may change the controller that calls: its cable pulled, its lines forgotten.
     */
    void fire(int nLine);

private:
    std::function<void(const std::string&)> m_trigger;
    std::multimap<int, std::string> m_mapCommand;
};
