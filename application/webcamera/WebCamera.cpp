// The HTTP camera server.
#include "WebCamera.h"

#include "SystemModule.h"
#include "WebCameraClient.h"

WebCamera::WebCamera() : TcpServer("webcamera")
{
    (void)
        SystemModule::getInstance(); // connections that end with the server cancel consumers there
}

WebCamera::~WebCamera()
{
    endService();
}

WebCamera& WebCamera::getInstance()
{
    static WebCamera s_instance;
    return s_instance;
}

TcpClient* WebCamera::createClient()
{
    return new WebCameraClient();
}
