// Commands that wait for the turn of a certain line.
#include "LineTriggers.h"

#include <utility>
#include <vector>

void LineTriggers::setTrigger(std::function<void(const std::string&)> trigger)
{
    m_trigger = std::move(trigger);
}

void LineTriggers::add(int nLine, const std::string& strCommand)
{
    m_mapCommand.emplace(nLine, strCommand);
}

void LineTriggers::fire(int nLine)
{
    const auto range = m_mapCommand.equal_range(nLine);
    std::vector<std::string> vecCommand;
    for (auto it = range.first; it != range.second; ++it) {
        vecCommand.push_back(it->second);
    }
    m_mapCommand.erase(range.first, range.second);
    for (const std::string& strCommand : vecCommand) {
        m_trigger(strCommand);
    }
}
