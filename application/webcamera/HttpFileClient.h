// The responder of every other path: a file of the web application.
#pragma once

#include <string>

#include "File.h"
#include "IClient.h"
#include "SendQueueTcpClient.h"

/**
 * Queues a file after its header, in pieces: the next one is read when the last has left, so that
 * a file of any size needs memory for one piece. The header has the size at the start; later
 * bytes are left out, and if there are fewer the connection closes after those.
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
    HttpFileClient(SendQueueTcpClient& client, const std::string& strPath);

    /**
     * Queue the header and the first piece; blocks while that is read.
     * @return 0; 1 for what can't be read, is no regular file, is larger than an int can say, or
     * has none of the known extensions. The header has been queued when only the reading fails.
     */
    int start() override;

    PROGRESS_E goOn() override;

    /** @return 0 */
    int stop() override;

private:
    int sendFile(const char* pContentType);
    bool readPiece(SendQueueTcpClient::Item& item);

    SendQueueTcpClient& m_client;
    const std::string m_strPath; // in the file system
    File m_file;                 // open while there is more to read
    int m_nLeft = 0;             // bytes not yet read
};
