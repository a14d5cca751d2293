// Instructions that wait for the turn of a certain line.
#include "LineTriggers.h"

#include <utility>
#include <vector>

void LineTriggers::setTrigger(std::function<void(const std::string&)> trigger)
{
    m_trigger = std::move(trigger);
}

void LineTriggers::add(int nLine, const std::string& strInstruction)
{
    m_mapInstruction.emplace(nLine, strInstruction);
}

void LineTriggers::fire(int nLine)
{
    const auto range = m_mapInstruction.equal_range(nLine);
    std::vector<std::string> vecInstruction;
    for (auto it = range.first; it != range.second; ++it) {
        vecInstruction.push_back(it->second);
    }
    m_mapInstruction.erase(range.first, range.second);
    for (const std::string& strInstruction : vecInstruction) {
        m_trigger(strInstruction);
    }
}
