// The camera's controls: brightness and exposure.
#include "VideoControls.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

struct VideoControls::Control
{
    uint32_t u32Id;
    uint32_t u32Type;
    const char* pName; // v4l2-ctl makes its own from it: "exposure_auto", "exposure_absolute"
    int32_t s32Minimum;
    int32_t s32Maximum;
    int32_t s32Step;
    int32_t s32Default;
};

// In the order of their ids, in which they are enumerated.
const VideoControls::Control VideoControls::CONTROLS[] = {
    {V4L2_CID_USER_CLASS, V4L2_CTRL_TYPE_CTRL_CLASS, "User Controls", 0, 0, 0, 0},
    {V4L2_CID_BRIGHTNESS, V4L2_CTRL_TYPE_INTEGER, "Brightness", -64, 64, 1, 0},
    {V4L2_CID_CAMERA_CLASS, V4L2_CTRL_TYPE_CTRL_CLASS, "Camera Controls", 0, 0, 0, 0},
    {V4L2_CID_EXPOSURE_AUTO, V4L2_CTRL_TYPE_MENU, "Exposure, Auto", 0, 3, 1,
     V4L2_EXPOSURE_APERTURE_PRIORITY},
    {V4L2_CID_EXPOSURE_ABSOLUTE, V4L2_CTRL_TYPE_INTEGER, "Exposure (Absolute)", 1, 5000, 1,
     NOMINAL_EXPOSURE},
};

namespace {

const uint32_t NEXT_FLAGS = V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;

// The items of exposure_auto that the camera has.
const char* menuItem(uint32_t u32Index)
{
    switch (u32Index) {
    case V4L2_EXPOSURE_MANUAL:
        return "Manual Mode";
    case V4L2_EXPOSURE_APERTURE_PRIORITY:
        return "Aperture Priority Mode";
    default:
        return nullptr;
    }
}

bool validWhich(uint32_t u32Which)
{
    return V4L2_CTRL_WHICH_CUR_VAL == u32Which || V4L2_CTRL_WHICH_DEF_VAL == u32Which ||
           V4L2_CTRL_CLASS_USER == u32Which || V4L2_CTRL_CLASS_CAMERA == u32Which;
}

} // namespace

const VideoControls::Control* VideoControls::find(uint32_t u32Id)
{
    const bool bNext = 0 != (u32Id & V4L2_CTRL_FLAG_NEXT_CTRL);
    if (0 != (u32Id & NEXT_FLAGS) && !bNext) {
        return nullptr; // there is no compound control
    }
    const uint32_t u32Bare = u32Id & ~NEXT_FLAGS;
    for (const Control& control : CONTROLS) {
        if (bNext ? control.u32Id > u32Bare : control.u32Id == u32Bare) {
            return &control;
        }
    }
    return nullptr;
}

int32_t VideoControls::value(uint32_t u32Id) const
{
    switch (u32Id) {
    case V4L2_CID_BRIGHTNESS:
        return m_s32Brightness;
    case V4L2_CID_EXPOSURE_AUTO:
        return m_s32ExposureAuto;
    case V4L2_CID_EXPOSURE_ABSOLUTE:
        return m_s32ExposureAbsolute;
    default:
        return 0;
    }
}

uint32_t VideoControls::flags(const Control& control) const
{
    if (V4L2_CTRL_TYPE_CTRL_CLASS == control.u32Type) {
        return V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY;
    }
    if (V4L2_CID_EXPOSURE_AUTO == control.u32Id) {
        return V4L2_CTRL_FLAG_UPDATE;
    }
    const bool bInactive =
        V4L2_CID_EXPOSURE_ABSOLUTE == control.u32Id && V4L2_EXPOSURE_MANUAL != m_s32ExposureAuto;
    return bInactive ? V4L2_CTRL_FLAG_INACTIVE : 0;
}

int VideoControls::query(v4l2_query_ext_ctrl& control) const
{
    const Control* pControl = find(control.id);
    if (nullptr == pControl) {
        return EINVAL;
    }
    control = {};
    control.id = pControl->u32Id;
    control.type = pControl->u32Type;
    snprintf(control.name, sizeof(control.name), "%s", pControl->pName);
    control.minimum = pControl->s32Minimum;
    control.maximum = pControl->s32Maximum;
    control.step = static_cast<uint64_t>(pControl->s32Step);
    control.default_value = pControl->s32Default;
    control.flags = flags(*pControl);
    control.elem_size = sizeof(int32_t);
    control.elems = 1;
    return 0;
}

int VideoControls::query(v4l2_queryctrl& control) const
{
    v4l2_query_ext_ctrl full{};
    full.id = control.id;
    const int nError = query(full);
    if (0 != nError) {
        return nError;
    }
    control = {};
    control.id = full.id;
    control.type = full.type;
    memcpy(control.name, full.name, sizeof(control.name));
    control.minimum = static_cast<int32_t>(full.minimum);
    control.maximum = static_cast<int32_t>(full.maximum);
    control.step = static_cast<int32_t>(full.step);
    control.default_value = static_cast<int32_t>(full.default_value);
    control.flags = full.flags;
    return 0;
}

int VideoControls::query(v4l2_querymenu& item) const
{
    const char* pName = V4L2_CID_EXPOSURE_AUTO == item.id ? menuItem(item.index) : nullptr;
    if (nullptr == pName) {
        return EINVAL;
    }
    snprintf(reinterpret_cast<char*>(item.name), sizeof(item.name), "%s", pName);
    item.reserved = 0;
    return 0;
}

int VideoControls::check(const Control& control, int32_t& s32Value) const
{
    if (V4L2_CTRL_TYPE_CTRL_CLASS == control.u32Type) {
        return EACCES;
    }
    if (V4L2_CTRL_TYPE_MENU == control.u32Type) {
        if (s32Value < control.s32Minimum || s32Value > control.s32Maximum) {
            return ERANGE;
        }
        if (nullptr == menuItem(static_cast<uint32_t>(s32Value))) {
            return EINVAL;
        }
    }
    if (0 != (flags(control) & V4L2_CTRL_FLAG_INACTIVE)) {
        return EACCES;
    }
    s32Value = std::clamp(s32Value, control.s32Minimum, control.s32Maximum);
    return 0;
}

int VideoControls::get(v4l2_control& control) const
{
    const Control* pControl = find(control.id);
    if (nullptr == pControl || 0 != (control.id & NEXT_FLAGS)) {
        return EINVAL;
    }
    if (V4L2_CTRL_TYPE_CTRL_CLASS == pControl->u32Type) {
        return EACCES;
    }
    control.value = value(control.id);
    return 0;
}

int VideoControls::set(v4l2_control& control)
{
    const Control* pControl = find(control.id);
    if (nullptr == pControl || 0 != (control.id & NEXT_FLAGS)) {
        return EINVAL;
    }
    const int nError = check(*pControl, control.value);
    if (0 != nError) {
        return nError;
    }
    switch (control.id) {
    case V4L2_CID_BRIGHTNESS:
        m_s32Brightness = control.value;
        break;
    case V4L2_CID_EXPOSURE_AUTO:
        m_s32ExposureAuto = control.value;
        break;
    default:
        m_s32ExposureAbsolute = control.value;
        break;
    }
    return 0;
}

int VideoControls::get(CameraControls& controls) const
{
    controls.u32ErrorIndex = controls.u32Count;
    if (!validWhich(controls.u32Which)) {
        return EINVAL;
    }
    for (uint32_t i = 0; i < controls.u32Count; ++i) {
        v4l2_control control{controls.control[i].u32Id, 0};
        const int nError = get(control);
        if (0 != nError) {
            controls.u32ErrorIndex = i;
            return nError;
        }
        controls.control[i].s32Value = V4L2_CTRL_WHICH_DEF_VAL == controls.u32Which
                                           ? find(control.id)->s32Default
                                           : control.value;
    }
    return 0;
}

int VideoControls::set(CameraControls& controls, bool bTryOnly)
{
    controls.u32ErrorIndex = controls.u32Count;
    if (!validWhich(controls.u32Which) || V4L2_CTRL_WHICH_DEF_VAL == controls.u32Which) {
        return EINVAL;
    }
    VideoControls after = *this; // all of them or none
    for (uint32_t i = 0; i < controls.u32Count; ++i) {
        v4l2_control control{controls.control[i].u32Id, controls.control[i].s32Value};
        const int nError = after.set(control);
        if (0 != nError) {
            // Like the kernel: only a try says which one was at fault.
            controls.u32ErrorIndex = bTryOnly ? i : controls.u32Count;
            return nError;
        }
        controls.control[i].s32Value = control.value;
    }
    if (!bTryOnly) {
        *this = after;
    }
    return 0;
}

double VideoControls::getExposureFactor() const
{
    return V4L2_EXPOSURE_MANUAL == m_s32ExposureAuto
               ? static_cast<double>(m_s32ExposureAbsolute) / NOMINAL_EXPOSURE
               : 1.0;
}

int32_t VideoControls::getBrightness() const
{
    return m_s32Brightness;
}
