// The responder of every other path: a file of the web application.
#pragma once

#include <string>

#include "IClient.h"

class WebCameraClient;

/**
 * Reads a whole file and queues it behind its header. Files are expected to be small.
 *
 * Deliberate: the path goes to the file system as it is (".." included), extensions are compared
 * with case, and there is no error answer: whatever fails closes the connection.
 */
class HttpFileClient : public IClient
{
public:
    /**
     * @param client   the connection, which outlives the responder
     * @param strPath  the request's path, appended to the web application's folder
     */
    HttpFileClient(WebCameraClient& client, const std::string& strPath);

    /**
     * Queue the file; blocks while it is read.
     * @return 0; 1 for what can't be read, is no regular file, is larger than an int can say, or
     * has none of the known extensions. The header has been queued when only the reading fails.
     */
    int start() override;

    /** @return 0 */
    int stop() override;

private:
    int sendFile(const char* pContentType);

    WebCameraClient& m_client;
    const std::string m_strPath; // in the file system
};
