// The request processor of a connection: collects a request, routes it, and keeps its responders.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "HttpRequestParser.h"
#include "IClient.h"
#include "ICommucation.h"
#include "SendQueueTcpClient.h"

/**
 * The first chunk goes through the parser and has to hold the whole request line and all headers;
 * every later one is body, even after the end of the request.
 *
 * Deliberate: a complete request is routed at once and again with each further chunk, which makes a
 * further responder for the same path and parameters. Files are answered one after the other, the
 * next when the one before has left; the other responders answer at the same time.
 *
 * The body is counted; its first 64 KiB are kept. What a connection keeps here counts in
 * ClientMemory.
 *
 * Used on the connection's reactor thread. Borrows the connection, whose member it is.
 */
class WebCameraHttpDataProcessor
{
public:
    WebCameraHttpDataProcessor(ICommucation& commucation, SendQueueTcpClient& client);
    WebCameraHttpDataProcessor(const WebCameraHttpDataProcessor&) = delete;
    WebCameraHttpDataProcessor& operator=(const WebCameraHttpDataProcessor&) = delete;
    /** Stops the responders and deletes those whose stop does not fail. */
    ~WebCameraHttpDataProcessor();

    /**
     * Feed a chunk and, once the request is complete, route it. Blocks as long as a measurement
     * runs.
     * @param nLength  bytes, above 0
     * @return 0, or 1 to close the connection
     * @throws std::bad_alloc  without memory for path, parameters or responder
     */
    int parse(const char* pData, int nLength);

    /**
     * Go on with a file that is being answered when what was queued of it has left, and then with
     * the next answer that further chunks have asked for.
     * @return 0; 1 to close the connection; TcpClient::TURN_AGAIN for another call soon
     * @throws std::bad_alloc  as parse
     */
    int goOn();

    /** The whole request has come. */
    bool hasRequest() const
    {
        return !m_bHeader && isComplete();
    }

    /** A responder is at work, or waits for its turn. */
    bool isAnswering() const
    {
        return !m_vecResponder.empty() || m_u32Repeats > 0;
    }

    /**
     * Take a chunk in without routing.
     * @return 0, or 1 when the request is malformed or the clients' memory is used up
     * @throws std::bad_alloc  without memory for path, parameters or body
     */
    int feed(const char* pData, int nLength);

    /** Feed has seen as many bytes of the body as the Content-Length said. */
    bool isComplete() const
    {
        return m_u32Received >= m_u32Expected;
    }

    /**
     * Answer with a plain text, directly.
     * Deliberate: "200 OK" whatever the text says.
     * @return the connection's result
     */
    int reply(const char* pText);

    /**
     * Make a responder the current one and start it. The earlier ones run on until
     * stopResponders().
     * @return the responder's result
     */
    int startResponder(std::unique_ptr<IClient> pResponder);

    /** End all responders, before the connection's destructors begin. */
    void stopResponders();

    const std::string& getPath() const
    {
        return m_strPath;
    }
    const std::map<std::string, std::string>& getParams() const
    {
        return m_mapParam;
    }
    /** What is kept of the body. */
    std::string_view getBody() const
    {
        return {m_vecBody.data(), m_vecBody.size()};
    }

    /** Bytes of the body that have come, those that were not kept included. */
    uint32_t getReceived() const
    {
        return m_u32Received;
    }

private:
    int feedHeader(const char* pData, int nLength);
    bool keepBody(std::string_view body);
    int route();
    int doRequestSnap();
    int doRequestCamera();
    std::string param(const char* pKey) const;

    std::string m_strPath;
    std::map<std::string, std::string> m_mapParam;
    std::vector<char> m_vecBody; // the first bytes of the body
    uint32_t m_u32Expected = 0;  // from the Content-Length; a negative one counts as unsigned
    uint32_t m_u32Received = 0;  // never above what is expected
    ICommucation& m_commucation;
    HttpRequestParser m_parser;
    bool m_bHeader = true;      // the next chunk is the first
    std::string_view m_pending; // body bytes of the chunk that is being fed
    std::vector<std::unique_ptr<IClient>> m_vecResponder; // the last one is the current one
    bool m_bFile = false;                                 // routed to a file
    uint32_t m_u32Repeats = 0; // answers that wait for the file under way
    SendQueueTcpClient& m_client;
};
