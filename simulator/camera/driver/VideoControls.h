// The camera's controls: brightness and exposure.
#pragma once

#include "preload/CameraProtocol.h"

/**
 * Values of the controls, answered as the UVC driver answers: integers out of range are clamped, a
 * menu item that the camera lacks is an error.
 *
 * Brightness lightens the picture. With exposure_auto on 3 (aperture priority, the value at
 * plugging in) exposure_absolute is inactive and the picture has its nominal light; on 1 (manual)
 * exposure_absolute counts, in units of 100 us. Functions that answer an ioctl return 0 or an error
 * number. No locking: the camera's lock covers it.
 */
class VideoControls
{
public:
    static const int32_t NOMINAL_EXPOSURE = 157; // at which manual and automatic look the same

    /**
     * VIDIOC_QUERYCTRL, VIDIOC_QUERY_EXT_CTRL, VIDIOC_QUERYMENU; ids may carry the "next" flags.
     */
    int query(v4l2_query_ext_ctrl& control) const;
    int query(v4l2_queryctrl& control) const;
    int query(v4l2_querymenu& item) const;

    /**
     * EINVAL for an unknown control; set: ERANGE, EINVAL for a menu's wrong item, EACCES inactive.
     */
    int get(v4l2_control& control) const;
    int set(v4l2_control& control);

    /** The ioctls on several controls; the index of the one at fault is noted in the record. */
    int get(CameraControls& controls) const;
    int set(CameraControls& controls, bool bTryOnly);

    /** Light of the picture relative to the nominal one. */
    double getExposureFactor() const;
    int32_t getBrightness() const;

private:
    struct Control;
    static const Control* find(uint32_t u32Id);
    static const Control CONTROLS[];

    int32_t value(uint32_t u32Id) const;
    uint32_t flags(const Control& control) const;
    int check(const Control& control, int32_t& s32Value) const;

    int32_t m_s32Brightness = 0;
    int32_t m_s32ExposureAuto = V4L2_EXPOSURE_APERTURE_PRIORITY;
    int32_t m_s32ExposureAbsolute = NOMINAL_EXPOSURE;
};
