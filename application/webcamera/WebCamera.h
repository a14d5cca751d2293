// The HTTP camera server.
#pragma once

#include "TcpServer.h"

/**
 * The server's reactor thread is "webcamera"; its connections are WebCameraClients, 512 at most.
 */
class WebCamera : public TcpServer
{
public:
    /** Made on first use; at process exit it ends the connections that are still open. */
    static WebCamera& getInstance();
    ~WebCamera() override;

    TcpClient* createClient() override;

protected:
    /** Ends the connection that can be spared best; with all of them at work there is none. */
    bool makeRoom() override;

private:
    WebCamera();
};
