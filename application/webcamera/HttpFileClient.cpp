// The responder of every other path: a file of the web application.
#include "HttpFileClient.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

#include "AnswerBlock.h"
#include "File.h"
#include "WebCameraClient.h"

static const char* const FOLDER = "/tmp/run/mountd/mmcblk0p1/kestrel-server/www";

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

HttpFileClient::HttpFileClient(WebCameraClient& client, const std::string& strPath)
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
        return 1; // opening a FIFO would hold up the reactor
    }
    const auto nSize = static_cast<int>(info.st_size);
    const SafePointer_C<char> header = makeAnswerBlock(
        1024,
        "HTTP/1.0 200 OK\r\nConnection: close\r\nCache-Control: no-store, no-cache, must-revalidate, pre-check=0, post-check=0, max-age=0\r\nExpires: Mon, 3 Jan 2000 12:34:56 GMT\r\nContent-type: %s\r\nServer: MJPG-Streamer\r\nContent-Length: %d\r\nCache-Control: no-cachePragma: no-cache\r\n\r\n", // sic
        pContentType, nSize);
    if (nullptr == header.get()) {
        return 1;
    }
    m_client.send(header, static_cast<int>(strlen(header.get())));

    const auto uSize = static_cast<size_t>(nSize);
    char* pContent = static_cast<char*>(malloc((0 == nSize) ? 1 : uSize));
    if (nullptr == pContent) {
        return 1;
    }
    const SafePointer_C<char> content(pContent);
    File file;
    if (0 != file.open(m_strPath.c_str(), FILE_FLAG_READ | FILE_FLAG_BINARY)) {
        return 1;
    }
    if (nullptr == content.get() || file.read(pContent, uSize) < uSize) {
        return 1;
    }
    file.close();
    m_client.send(content, nSize);
    return 0;
}

int HttpFileClient::stop()
{
    return 0;
}
