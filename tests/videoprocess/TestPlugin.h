// What a test sees of the plug-in made for it.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "frame_process.h"

/** One call of an entry point. */
struct PluginCall
{
    std::string strName;
    int32_t s32Tid = 0; // the thread it came on
    uint32_t u32Size = 0;
    uint32_t u32Width = 0;
    uint32_t u32Height = 0;
    std::vector<uint8_t> vecData; // the picture, empty without one
    const void* apOther[3] = {};  // easyFun: the last three arguments
};

/** What the entry points are to answer, and how they were called. */
struct TestPlugin
{
    TestPlugin(int nResult, int nFocusResult)
        : nUndistortResult(nResult), nFindPosResult(nResult), nAutoFocusResult(nFocusResult)
    {
    }

    int nUndistortResult;
    FRAME_PROCESS_UNDISTORT_T undistorted = {};
    int nFindPosResult;
    float fX = 0;
    float fY = 0;
    float fXBefore = -1; // what findPos found
    float fYBefore = -1;
    int nAutoFocusResult;
    float fMeasure = 0;
    int32_t s32Exposure = 0;
    int32_t s32ExposureBefore = -1; // what setExposure found

    std::mutex mutex; // guards vecCall
    std::vector<PluginCall> vecCall;

    std::vector<PluginCall> calls()
    {
        const std::lock_guard<std::mutex> guard(mutex);
        return vecCall;
    }
    std::vector<std::string> names()
    {
        std::vector<std::string> vecName;
        for (const PluginCall& call : calls()) {
            vecName.push_back(call.strName);
        }
        return vecName;
    }
};

extern "C" {
/** The plug-in's eighth name, which only the tests know. */
FRAME_PROCESS_API TestPlugin* testPlugin(void);
}
