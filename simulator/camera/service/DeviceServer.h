// Accepts programs that use the camera.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <poll.h>

#include "CameraSession.h"

/** The socket that the preloaded library asks for stat and open. The main thread only. */
class DeviceServer
{
public:
    DeviceServer(UvcCamera& camera, const std::string& strDir);
    ~DeviceServer();
    DeviceServer(const DeviceServer&) = delete;
    DeviceServer& operator=(const DeviceServer&) = delete;

    /** @return false when the socket cannot be made (the reason is in errno) */
    bool start();

    /** watch() appends the descriptors to poll; handle() serves those that are ready. */
    void watch(std::vector<pollfd>& vecPoll) const;
    void handle();

private:
    void accept();

    UvcCamera& m_camera;
    const std::string m_strDir;
    int m_nListener = -1;
    std::vector<std::unique_ptr<CameraSession>> m_vecSession;
};
