// Asks the station over HTTP.
#pragma once

#include <functional>
#include <string>

#include <nlohmann/json.hpp>

/** What came back. */
// NOLINTNEXTLINE(bugprone-exception-escape): what JSON's own assertions would throw is never caught
struct StationAnswer
{
    int nStatus = 0;      // of HTTP; 0: nobody answered
    std::string strBody;  // as it came
    nlohmann::json json;  // of the body where it is JSON, else discarded
    std::string strError; // in a sentence, when it is not good

    bool isGood() const
    {
        return nStatus >= 200 && nStatus < 300;
    }

    /** The problem's name, e.g. "no-guard"; empty when it is none. */
    std::string getProblem() const;
};

/**
 * Every request has a connection of its own, so that one that hangs holds up no other. Any thread.
 */
class StationClient
{
public:
    /**
     * @param strUrl    "http://HOST:PORT", with a path where a proxy has put the station below one
     * @param strToken  sent with every request
     */
    StationClient(std::string strUrl, std::string strToken);

    /** Whether it is a URL that can be asked: "https://" where TLS was built in. */
    static bool canAsk(const std::string& strUrl);

    /** @param nTimeoutMs  until the answer has to begin */
    StationAnswer get(const std::string& strPath, int nTimeoutMs = 5000) const;
    StationAnswer post(const std::string& strPath, const nlohmann::json& body,
                       int nTimeoutMs = 5000) const;

    /** Send a file's bytes. */
    StationAnswer upload(const std::string& strPath, const std::string& strBytes,
                         int nTimeoutMs = 60000) const;

    /** Is given a server-sent event's name, id and data; false ends it. */
    using EventSink = std::function<bool(const std::string& strName, const std::string& strData)>;

    /**
     * Hand on what the station tells, until it ends or the sink has enough. Blocks meanwhile.
     * @return good when it had begun well
     */
    StationAnswer watch(const EventSink& sink) const;

    const std::string& getUrl() const
    {
        return m_strUrl;
    }

    const std::string& getToken() const
    {
        return m_strToken;
    }

    /** The host of the URL. */
    std::string getHost() const;

private:
    std::string m_strUrl;    // as given
    std::string m_strOrigin; // scheme, host and port
    std::string m_strFolder; // the path before every other; without a slash at its end
    std::string m_strToken;
};
