// Device calls as text: their names, the arguments asked and granted, error and pixel-format names.
#pragma once

#include <string>

#include "preload/CameraProtocol.h"

using CameraRecord = decltype(CameraPage::record);

/** "S_FMT", "mmap", ...; an ioctl's name without its VIDIOC_. */
const char* callName(CAMERA_CALL_E eCall);

/** The call of a name, VIDIOC_ in front or not; CAMERA_CALLS for an unknown one. */
CAMERA_CALL_E callOf(const std::string& strName);

/** "ENODEV" for 19; "errno N" for a number above ERANGE. */
std::string errorName(int nErrno);

/** 19 for "ENODEV"; 0 for an unknown name. */
int errorOf(const std::string& strName);

/** "MJPG" for its four-character code. */
std::string pixelFormatName(uint32_t u32Format);

/** What the caller asked for, as "key=value" words; empty for a call without arguments. */
std::string askedText(CAMERA_CALL_E eCall, const CameraRecord& record);

/** What a successful call gave back, as "key=value" words; empty when it gives nothing. */
std::string grantedText(CAMERA_CALL_E eCall, const CameraRecord& record);
