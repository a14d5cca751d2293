// Asks the station over HTTP.
#include "StationClient.h"

#include <chrono>
#include <utility>

#include <httplib.h>

#include "EventText.h"
#include "JsonFields.h"

static const int CONNECT_SECONDS = 2;
static const int SILENCE_SECONDS = 15; // of the events: a comment comes at least every 5 s
static const char* const JSON = "application/json";
static const char* const BYTES = "application/octet-stream";

namespace {

/** In words for people. */
std::string describe(httplib::Error eError)
{
    switch (eError) {
    case httplib::Error::Connection:
    case httplib::Error::BindIPAddress:
        return "cannot be reached";
    case httplib::Error::Read:
        return "does not answer";
    case httplib::Error::Write:
        return "takes nothing more";
    default:
        return "failed: " + httplib::to_string(eError);
    }
}

/** The sentence of a problem document; of anything else as much as can be told. */
std::string sentenceOf(const StationAnswer& answer)
{
    const std::string strDetail = textOf(answer.json, "detail");
    const std::string strAction = textOf(answer.json, "action");
    if (strDetail.empty()) {
        return "HTTP status " + std::to_string(answer.nStatus);
    }
    return strDetail + (strAction.empty() ? "" : " " + strAction);
}

StationAnswer toAnswer(const std::string& strUrl, const httplib::Result& result)
{
    StationAnswer answer;
    if (!result) {
        answer.strError = strUrl + " " + describe(result.error());
        return answer;
    }
    answer.nStatus = result->status;
    answer.strBody = result->body;
    answer.json = nlohmann::json::parse(answer.strBody, nullptr, false);
    if (!answer.isGood()) {
        answer.strError = sentenceOf(answer);
    }
    return answer;
}

/** @param nTimeoutMs  until the answer begins, and for each part of it */
void prepare(httplib::Client& client, const std::string& strToken, int nTimeoutMs)
{
    client.set_connection_timeout(CONNECT_SECONDS, 0);
    client.set_read_timeout(std::chrono::milliseconds(nTimeoutMs));
    client.set_write_timeout(std::chrono::milliseconds(nTimeoutMs));
    client.set_keep_alive(false);
    client.set_bearer_token_auth(strToken.c_str());
}

} // namespace

std::string StationAnswer::getProblem() const
{
    const std::string strBegin = "urn:problem:kestrel:";
    const std::string strType = textOf(json, "type");
    return 0 == strType.compare(0, strBegin.size(), strBegin) ? strType.substr(strBegin.size())
                                                              : "";
}

StationClient::StationClient(std::string strUrl, std::string strToken)
    : m_strUrl(std::move(strUrl)), m_strToken(std::move(strToken))
{
    const size_t uScheme = m_strUrl.find("://");
    const size_t uHost = (std::string::npos == uScheme) ? 0 : uScheme + 3;
    const size_t uPath = std::min(m_strUrl.find('/', uHost), m_strUrl.size());
    m_strOrigin = m_strUrl.substr(0, uPath);
    m_strFolder = m_strUrl.substr(uPath);
    while (!m_strFolder.empty() && '/' == m_strFolder.back()) {
        m_strFolder.pop_back();
    }
}

bool StationClient::canAsk(const std::string& strUrl)
{
    for (const std::string strScheme : {
             "http://",
#ifdef CPPHTTPLIB_OPENSSL_SUPPORT
             "https://",
#endif
         }) {
        if (0 == strUrl.rfind(strScheme, 0)) {
            return strUrl.size() > strScheme.size() && '/' != strUrl[strScheme.size()];
        }
    }
    return false;
}

StationAnswer StationClient::get(const std::string& strPath, int nTimeoutMs) const
{
    httplib::Client client(m_strOrigin);
    prepare(client, m_strToken, nTimeoutMs);
    return toAnswer(m_strUrl, client.Get((m_strFolder + strPath).c_str()));
}

StationAnswer StationClient::post(const std::string& strPath, const nlohmann::json& body,
                                  int nTimeoutMs) const
{
    httplib::Client client(m_strOrigin);
    prepare(client, m_strToken, nTimeoutMs);
    return toAnswer(m_strUrl, client.Post((m_strFolder + strPath).c_str(), body.dump(), JSON));
}

StationAnswer StationClient::upload(const std::string& strPath, const std::string& strBytes,
                                    int nTimeoutMs) const
{
    httplib::Client client(m_strOrigin);
    prepare(client, m_strToken, nTimeoutMs);
    return toAnswer(m_strUrl, client.Post((m_strFolder + strPath).c_str(), strBytes, BYTES));
}

StationAnswer StationClient::watch(const EventSink& sink) const
{
    httplib::Client client(m_strOrigin);
    prepare(client, m_strToken, SILENCE_SECONDS * 1000);
    StationAnswer answer;
    EventText events(sink);
    const httplib::Result result =
        client.Get((m_strFolder + "/events").c_str(),
                   [&answer](const httplib::Response& response) {
                       answer.nStatus = response.status;
                       return true;
                   },
                   [&answer, &events](const char* pData, size_t uLength) {
                       if (answer.isGood()) {
                           return events.take(std::string(pData, uLength));
                       }
                       answer.strBody.append(pData, uLength);
                       return true;
                   });
    if (0 == answer.nStatus) {
        answer.strError = m_strUrl + " " + describe(result.error());
    } else if (!answer.isGood()) {
        answer.json = nlohmann::json::parse(answer.strBody, nullptr, false);
        answer.strError = sentenceOf(answer);
    }
    return answer;
}

std::string StationClient::getHost() const
{
    const size_t uScheme = m_strOrigin.find("://");
    const std::string strHost =
        (std::string::npos == uScheme) ? m_strOrigin : m_strOrigin.substr(uScheme + 3);
    if ('[' == strHost[0]) {
        return strHost.substr(0, strHost.find(']') + 1);
    }
    return strHost.substr(0, strHost.find(':'));
}
