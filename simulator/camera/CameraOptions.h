// The command line of kestrel-camera.
#pragma once

#include <cstdint>
#include <string>

struct CameraOptions
{
    static const char* const USAGE;

    std::string strDir = "/tmp/kestrel-camera";
    std::string strScene;    // empty: "scene" below the directory
    std::string strPictures; // empty: the rendered scene
    std::string strScript;
    double dK1 = 0;
    uint32_t u32Rate = 0; // 0: what S_PARM sets
    uint32_t u32Keep = 0;
    int nQuality = 80;
    bool bUnplugged = false;

    /** @return false after a message on standard error */
    bool parse(int nCount, char** ppArgument);
};
