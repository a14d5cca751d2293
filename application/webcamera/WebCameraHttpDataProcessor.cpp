// The request processor of a connection: collects a request, routes it, and keeps its responders.
#include "WebCameraHttpDataProcessor.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "AnswerBlock.h"
#include "HttpFileClient.h"
#include "HttpLiveClient.h"
#include "HttpSnapClient.h"
#include "Log.h"
#include "SystemModule.h"

static const char* const SOURCE_NAME = "webcamera/WebCameraHttpDataProcessor";

static const int32_t STREAM = 0; // Deliberate: whatever "stream" asks for

static const uint32_t MOST_BODY = 64 * 1024;  // bytes that are kept
static const uint32_t PARAM_BYTES = 160;      // what a parameter binds beside its texts
static const uint32_t RESPONDER_BYTES = 8192; // what a responder binds, an open file's buffer
static const int MOST_STEPS = 16;             // of answering in one turn

WebCameraHttpDataProcessor::WebCameraHttpDataProcessor(ICommucation& commucation,
                                                       SendQueueTcpClient& client)
    : m_commucation(commucation), m_client(client)
{
}

WebCameraHttpDataProcessor::~WebCameraHttpDataProcessor()
{
    for (auto& pResponder : m_vecResponder) {
        if (pResponder->stop() > 0) {
            (void)pResponder.release(); // still in use elsewhere
        }
    }
}

int WebCameraHttpDataProcessor::parse(const char* pData, int nLength)
{
    if (0 != feed(pData, nLength)) {
        return 1;
    }
    if (!isComplete()) {
        return 0;
    }
    if (m_bFile && !m_vecResponder.empty()) {
        m_u32Repeats += (UINT32_MAX == m_u32Repeats) ? 0 : 1;
        return 0;
    }
    return route();
}

int WebCameraHttpDataProcessor::goOn()
{
    for (int i = 0; i < MOST_STEPS; ++i) {
        if (!isAnswering() || !m_client.isDrained()) {
            return 0;
        }
        if (m_vecResponder.empty()) {
            --m_u32Repeats;
            if (0 != route()) {
                return 1;
            }
            continue;
        }
        switch (m_vecResponder.back()->goOn()) {
        case IClient::PROGRESS_NONE:
            return 0;
        case IClient::PROGRESS_FAILED:
            return 1;
        case IClient::PROGRESS_SENT:
            break;
        case IClient::PROGRESS_DONE:
            (void)m_vecResponder.back()->stop(); // a file's can't fail
            m_vecResponder.pop_back();
            m_client.give(RESPONDER_BYTES);
            break;
        }
    }
    return TcpClient::TURN_AGAIN;
}

int WebCameraHttpDataProcessor::feed(const char* pData, int nLength)
{
    if (!m_bHeader) {
        m_pending = std::string_view(pData, static_cast<size_t>(nLength));
    } else if (0 != feedHeader(pData, nLength)) {
        return 1;
    }
    const auto u32Length =
        static_cast<uint32_t>(std::min<size_t>(m_pending.size(), m_u32Expected - m_u32Received));
    m_u32Received += u32Length;
    return keepBody(m_pending.substr(0, u32Length)) ? 0 : 1;
}

/** @return false when the connection has been given up */
bool WebCameraHttpDataProcessor::keepBody(std::string_view body)
{
    body = body.substr(0, MOST_BODY - m_vecBody.size());
    if (body.empty()) {
        return true;
    }
    if (!m_client.take(2 * static_cast<uint32_t>(body.size()))) { // the vector doubles as it grows
        return false;
    }
    m_vecBody.insert(m_vecBody.end(), body.begin(), body.end());
    return true;
}

int WebCameraHttpDataProcessor::feedHeader(const char* pData, int nLength)
{
    if (0 != m_parser.parse(pData, nLength)) {
        return 1;
    }
    const std::string_view path = m_parser.getPath();
    if (nullptr == path.data()) {
        return 1;
    }
    m_strPath = path;
    std::string_view key;
    std::string_view value;
    uint32_t u32Bytes = static_cast<uint32_t>(m_strPath.size());
    while (m_parser.nextParam(key, value)) {
        m_mapParam[std::string(key)] = value;
        u32Bytes += static_cast<uint32_t>(key.size() + value.size()) + PARAM_BYTES;
    }
    if (!m_client.take(u32Bytes)) {
        return 1;
    }
    m_pending = m_parser.getBody();
    m_u32Expected = static_cast<uint32_t>(m_parser.getContentLength());
    m_bHeader = false; // Deliberate: for the rest of the connection
    return 0;
}

std::string WebCameraHttpDataProcessor::param(const char* pKey) const
{
    const auto it = m_mapParam.find(pKey);
    return (m_mapParam.end() == it) ? std::string() : it->second;
}

int WebCameraHttpDataProcessor::route()
{
    if ("/live" == m_strPath) {
        return startResponder(std::make_unique<HttpLiveClient>(m_client, STREAM));
    }
    if ("/snap" == m_strPath) {
        return doRequestSnap();
    }
    if ("/camera" == m_strPath) {
        return doRequestCamera();
    }
    if (m_strPath.empty()) {
        return 1;
    }
    m_bFile = true;
    return startResponder(std::make_unique<HttpFileClient>(m_client, m_strPath));
}

int WebCameraHttpDataProcessor::doRequestSnap()
{
    std::string strFileName = param("filename");
    if (strFileName.empty()) {
        strFileName = "photo.jpg";
    }
    LOG(7, "s32StreamIdx:%d s8FileName:%s\n", STREAM, strFileName.c_str());
    const bool bCorrection = "correction" == param("mode");
    return startResponder(
        std::make_unique<HttpSnapClient>(m_client, STREAM, strFileName, bCorrection));
}

int WebCameraHttpDataProcessor::doRequestCamera()
{
    if (param("focus").empty()) {
        return reply("invalid request");
    }
    float fMeasure = 0;
    (void)SystemModule::getInstance().measure(&fMeasure); // a failure answers what it left there
    char acText[80]; // the longest float has 39 digits before the point
    snprintf(acText, sizeof(acText), "{\"measure\":\"%0.4f\"}", static_cast<double>(fMeasure));
    return reply(acText);
}

int WebCameraHttpDataProcessor::reply(const char* pText)
{
    const SafePointer_C<char> answer = makeAnswerBlock(
        1024,
        "HTTP/1.1 200 OK\r\nConnection: close\r\nServer: MJPG-Streamer/0.2\r\nCache-Control: no-store, no-cache, must-revalidate, pre-check=0, post-check=0, max-age=0\r\nPragma: no-cache\r\nExpires: Mon, 3 Jan 2000 12:34:56 GMT\r\nContent-type: text/plain\r\nContent-Length: %u\r\n\r\n%s",
        static_cast<unsigned>(strlen(pText)), pText);
    if (nullptr == answer.get()) {
        return 1;
    }
    return m_commucation.write(answer.get(), static_cast<int>(strlen(answer.get())));
}

int WebCameraHttpDataProcessor::startResponder(std::unique_ptr<IClient> pResponder)
{
    if (!m_client.take(RESPONDER_BYTES)) {
        return 1;
    }
    // Deliberate: the earlier responder answers on; it is stopped with the connection.
    m_vecResponder.push_back(std::move(pResponder));
    return m_vecResponder.back()->start();
}

void WebCameraHttpDataProcessor::stopResponders()
{
    for (const auto& pResponder : m_vecResponder) {
        (void)pResponder->stop(); // the destructor asks again
    }
}
