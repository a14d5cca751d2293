// Who may ask: the token, the name that the machine was asked by, and the page that asks.
#pragma once

#include <string>
#include <vector>

/** The rules of the configuration. No state of their own; any thread. */
class RequestRules
{
public:
    /**
     * @param vecHost    names of the machine besides "localhost" and its addresses, without a port
     * @param vecOrigin  origins besides the machine's own, e.g. "https://arm.example"
     */
    RequestRules(std::string strToken, std::vector<std::string> vecHost,
                 std::vector<std::string> vecOrigin);

    /** @param strHost  a Host header; any port will do */
    bool isHost(const std::string& strHost) const;

    /**
     * @param strOrigin  an Origin header
     * @param strHost    the same request's Host header
     * @param nPort      that it came to
     */
    bool isOrigin(const std::string& strOrigin, const std::string& strHost, int nPort) const;

    /** @param strAuthorization  the header; takes as long for every wrong token */
    bool isToken(const std::string& strAuthorization) const;

private:
    std::string m_strToken;
    std::vector<std::string> m_vecHost;
    std::vector<std::string> m_vecOrigin;
};
