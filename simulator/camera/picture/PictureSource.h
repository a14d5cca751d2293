// Where the camera's pictures come from.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VideoFormats.h"

/** What to draw. */
struct PictureRequest
{
    uint32_t u32Number = 0;
    uint32_t u32Sequence = 0;
    uint32_t u32Run = 0;
    int64_t s64Microseconds = 0; // CLOCK_MONOTONIC, when the frame was due
    VideoFormats::Choice choice;
    double dExposure = 1.0; // factor on the light
    int32_t s32Brightness = 0;
};

/** Where the laser spot truly is in a picture; pixel (0, 0) has its centre at 0, 0. */
struct Truth
{
    uint32_t u32Number = 0; // 0: no picture yet
    bool bLaserOn = false;
    bool bInPicture = false; // the spot's centre lies within the picture
    double dX = 0;           // pixels
    double dY = 0;
    double dSigma = 0; // pixels, before distortion
    double dXMillimetre = 0;
    double dYMillimetre = 0;
    double dZMillimetre = 0;
};

/** One frame as the camera delivers it. */
struct Picture
{
    std::vector<uint8_t> vecByte;
    Truth truth;
};

class IPictureSource
{
public:
    virtual ~IPictureSource() = default;
    /** Fill the picture; its memory is used again. One thread at a time; may take milliseconds. */
    virtual void draw(const PictureRequest& request, Picture& picture) = 0;
};
