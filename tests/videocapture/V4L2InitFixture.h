// A camera that is opened, as the kernel's driver sees it.
#pragma once

#include <cstddef>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "V4L2.h"
#include "VirtualCamera.h"

/** Video buffers that are mapped into this process. */
inline size_t mappedBuffers()
{
    size_t uCount = 0;
    std::ifstream maps("/proc/self/maps");
    for (std::string strLine; std::getline(maps, strLine);) {
        uCount += (std::string::npos != strLine.find("/buffers-")) ? 1 : 0;
    }
    return uCount;
}

class V4L2InitFixture : public testing::Test
{
protected:
    using Lines = std::vector<std::string>;

    static std::string logged(const std::string& strFunction, const std::string& strMessage)
    {
        return "[debug] [videocapture/V4L2 ] [" + strFunction + "] " + strMessage;
    }

    /** The lines of V4L2 behind the ones that every opened camera writes. */
    Lines messages() const
    {
        Lines vecLine = m_log.lines();
        if (!vecLine.empty() &&
            vecLine[0] == logged("init", "Probe: stream(0) dev(/dev/video0)\n")) {
            vecLine.erase(vecLine.begin());
        }
        return vecLine;
    }

    VirtualCamera m_camera;
    LogCapture m_log;
    V4L2 m_v4l2;
};
