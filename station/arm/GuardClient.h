// Asks the guard itself, past the station.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

/** One request a connection of the operator's socket. No state of its own; any thread. */
class GuardClient
{
public:
    explicit GuardClient(std::string strSocket) : m_strSocket(std::move(strSocket)) {}

    /**
     * Ask, and wait for the answer.
     * @param request     with "do"
     * @param nTimeoutMs  for all of it
     * @param strError    a sentence, when there is no answer
     * @return whether one came; it may be a refusal ("ok" is false)
     */
    bool ask(const nlohmann::json& request, int nTimeoutMs, nlohmann::json& answer,
             std::string& strError) const;

private:
    std::string m_strSocket;
};
