// The HTTP camera server.
#include "WebCamera.h"

#include "SystemModule.h"
#include "WebCameraClient.h"

static const int MOST_CLIENTS = 512;

WebCamera::WebCamera() : TcpServer("webcamera", MOST_CLIENTS)
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

bool WebCamera::makeRoom()
{
    const uint32_t u32NowMs = monotonicMs32();
    return endHighest([u32NowMs](TcpClient& client) {
        return static_cast<WebCameraClient&>(client).getIdleRank(u32NowMs);
    });
}
