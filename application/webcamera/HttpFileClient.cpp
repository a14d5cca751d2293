// The responder of every other path: a file of the web application.
#include "HttpFileClient.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

#include "AnswerBlock.h"
#include "File.h"
#include "SendQueueTcpClient.h"

static const char* const FOLDER = "/tmp/run/mountd/mmcblk0p1/kestrel-server/www";
static const int PIECE = 32 * 1024; // bytes of a file that are read at once

namespace {

struct ContentType
{
    const char* pExtension;
    const char* pName;
};

const ContentType CONTENT_TYPES[] = {
    {".html", "text/html"},     {".htm", "text/html"},  {".css", "text/css"},
    {".js", "text/javascript"}, {".txt", "text/plain"}, {".jpg", "image/jpeg"},
    {".jpeg", "image/jpeg"},    {".png", "image/png"},  {".ico", "image/x-icon"},
};

/** @return null for an unknown one */
const char* findContentType(const char* pExtension)
{
    for (const ContentType& type : CONTENT_TYPES) {
        if (0 == strcmp(type.pExtension, pExtension)) {
            return type.pName;
        }
    }
    return nullptr;
}

} // namespace

HttpFileClient::HttpFileClient(SendQueueTcpClient& client, const std::string& strPath)
    : m_client(client), m_strPath(FOLDER + strPath)
{
}

int HttpFileClient::start()
{
    (void)m_client.trySend(); // what an earlier responder left waiting
    if (0 != File::access(m_strPath.c_str(), R_OK)) {
        return 1;
    }
    // From the last '.', wherever it is: "/a.b/c" has the extension ".b/c".
    const char* pExtension = strrchr(m_strPath.c_str(), '.');
    if (nullptr == pExtension) {
        return 1;
    }
    const char* pContentType = findContentType(pExtension);
    if (nullptr == pContentType) {
        return 1;
    }
    return sendFile(pContentType);
}

int HttpFileClient::sendFile(const char* pContentType)
{
    struct stat info
    {
    };
    if (0 != stat(m_strPath.c_str(), &info) || !S_ISREG(info.st_mode) || info.st_size > INT_MAX) {
        // Opening a FIFO would hold up the reactor.
        // Deliberate: nothing is answered either when the file has just gone, not even a header.
        return 1;
    }
    const auto nSize = static_cast<int>(info.st_size);
    const SafePointer_C<char> header = makeAnswerBlock(
        1024,
        "HTTP/1.0 200 OK\r\nConnection: close\r\nCache-Control: no-store, no-cache, must-revalidate, pre-check=0, post-check=0, max-age=0\r\nExpires: Mon, 3 Jan 2000 12:34:56 GMT\r\nContent-type: %s\r\nServer: MJPG-Streamer\r\nContent-Length: %d\r\nCache-Control: no-cachePragma: no-cache\r\n\r\n", // sic
        pContentType, nSize);
    if (nullptr == header.get()) {
        return 1;
    }
    SendQueueTcpClient::Item aItem[2];
    aItem[0].data = header;
    aItem[0].nLength = static_cast<int>(strlen(header.get()));
    m_nLeft = nSize;
    const bool bRead = 0 == m_file.open(m_strPath.c_str(), FILE_FLAG_READ | FILE_FLAG_BINARY) &&
                       readPiece(aItem[1]) && aItem[1].nLength == std::min(nSize, PIECE);
    const bool bSent = m_client.sendTogether(aItem, bRead ? 2 : 1);
    if (!bRead) {
        m_nLeft = 0;
    }
    return (bRead && bSent) ? 0 : 1;
}

/** The next piece, shorter than it should be when the file ends. @return false without memory */
bool HttpFileClient::readPiece(SendQueueTcpClient::Item& item)
{
    const int nWanted = std::min(m_nLeft, PIECE);
    char* pPiece = static_cast<char*>(malloc((0 == nWanted) ? 1 : static_cast<size_t>(nWanted)));
    if (nullptr == pPiece) {
        return false;
    }
    item.data = SafePointer_C<char>(pPiece);
    if (nullptr == item.data.get()) {
        return false;
    }
    item.nLength = static_cast<int>(m_file.read(pPiece, static_cast<size_t>(nWanted)));
    m_nLeft -= item.nLength;
    if (0 == m_nLeft) {
        m_file.close();
    }
    return true;
}

IClient::PROGRESS_E HttpFileClient::goOn()
{
    if (0 == m_nLeft) {
        return PROGRESS_DONE;
    }
    SendQueueTcpClient::Item item;
    if (!readPiece(item) || 0 == item.nLength) {
        return PROGRESS_FAILED;
    }
    m_client.send(item.data, item.nLength);
    return PROGRESS_SENT;
}

int HttpFileClient::stop()
{
    return 0;
}
