// Device calls as text: their names, the arguments asked and granted, error and pixel-format names.
#include "CallText.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <iterator>

namespace {

const char* const CALL_NAMES[] = {
#define CAMERA_NAME(name, type, field) #name,
    CAMERA_ALL_CALLS(CAMERA_NAME)
#undef CAMERA_NAME
};

struct ErrorName
{
    int nErrno;
    const char* pName;
};

const ErrorName ERROR_NAMES[] = {
    {EPERM, "EPERM"},   {ENOENT, "ENOENT"}, {EINTR, "EINTR"},   {EIO, "EIO"},
    {ENXIO, "ENXIO"},   {E2BIG, "E2BIG"},   {EBADF, "EBADF"},   {EAGAIN, "EAGAIN"},
    {ENOMEM, "ENOMEM"}, {EACCES, "EACCES"}, {EFAULT, "EFAULT"}, {EBUSY, "EBUSY"},
    {EEXIST, "EEXIST"}, {ENODEV, "ENODEV"}, {EINVAL, "EINVAL"}, {ENFILE, "ENFILE"},
    {EMFILE, "EMFILE"}, {ENOTTY, "ENOTTY"}, {ENOSPC, "ENOSPC"}, {EPIPE, "EPIPE"},
    {ERANGE, "ERANGE"},
};

std::string text(const char* pFormat, ...) __attribute__((format(printf, 1, 2)));

std::string text(const char* pFormat, ...)
{
    char acText[512];
    va_list arguments;
    va_start(arguments, pFormat);
    vsnprintf(acText, sizeof(acText), pFormat, arguments);
    va_end(arguments);
    return acText;
}

std::string flagsText(uint32_t u32Flags)
{
    std::string strText = "O_RDONLY";
    if (0 != (u32Flags & CAMERA_OPEN_WRITE)) {
        strText = 0 != (u32Flags & CAMERA_OPEN_READ) ? "O_RDWR" : "O_WRONLY";
    }
    strText += 0 != (u32Flags & CAMERA_OPEN_NONBLOCK) ? "|O_NONBLOCK" : "";
    strText += 0 != (u32Flags & CAMERA_OPEN_CLOEXEC) ? "|O_CLOEXEC" : "";
    return strText;
}

std::string mappingText(const CameraMapping& mapping)
{
    std::string strProtection = 0 != (mapping.u32Flags & CAMERA_MAP_READ) ? "READ" : "";
    if (0 != (mapping.u32Flags & CAMERA_MAP_WRITE)) {
        strProtection += strProtection.empty() ? "WRITE" : "|WRITE";
    }
    return text("length=%u prot=%s flags=%s offset=%u", mapping.u32Length,
                strProtection.empty() ? "NONE" : strProtection.c_str(),
                0 != (mapping.u32Flags & CAMERA_MAP_SHARED) ? "SHARED" : "PRIVATE",
                mapping.u32Offset);
}

std::string sizeText(const v4l2_pix_format& pix)
{
    return text("width=%u height=%u pixelformat=%s field=%u", pix.width, pix.height,
                pixelFormatName(pix.pixelformat).c_str(), pix.field);
}

std::string rectText(const char* pName, const v4l2_rect& rect)
{
    return text("%s=%d,%d,%ux%u", pName, rect.left, rect.top, rect.width, rect.height);
}

std::string controlsText(const CameraControls& controls, bool bValues)
{
    std::string strText = text("which=0x%x count=%u", controls.u32Which, controls.u32Count);
    for (uint32_t i = 0; i < controls.u32Count && i < CAMERA_MAX_CONTROLS; ++i) {
        strText += text(" id=0x%08x", controls.control[i].u32Id);
        strText += bValues ? text(" value=%d", controls.control[i].s32Value) : "";
    }
    return strText;
}

/** An argument that a caller has no reason to give: shown when it is not 0. */
std::string unusual(const char* pName, uint32_t u32Value, const char* pBefore = " ")
{
    return 0 == u32Value ? "" : text("%s%s=%u", pBefore, pName, u32Value);
}

std::string reservedText(const uint32_t* pReserved, size_t uCount)
{
    return std::any_of(pReserved, pReserved + uCount,
                       [](uint32_t u32Value) { return 0 != u32Value; })
               ? " reserved"
               : "";
}

} // namespace

const char* callName(CAMERA_CALL_E eCall)
{
    return CALL_NAMES[eCall];
}

CAMERA_CALL_E callOf(const std::string& strName)
{
    const std::string strPrefix = "VIDIOC_";
    const std::string strBare = 0 == strName.compare(0, strPrefix.size(), strPrefix)
                                    ? strName.substr(strPrefix.size())
                                    : strName;
    for (int i = 0; i < CAMERA_CALLS; ++i) {
        if (strBare == CALL_NAMES[i]) {
            return static_cast<CAMERA_CALL_E>(i);
        }
    }
    return CAMERA_CALLS;
}

std::string errorName(int nErrno)
{
    for (const ErrorName& name : ERROR_NAMES) {
        if (name.nErrno == nErrno) {
            return name.pName;
        }
    }
    return text("errno %d", nErrno);
}

int errorOf(const std::string& strName)
{
    for (const ErrorName& name : ERROR_NAMES) {
        if (strName == name.pName) {
            return name.nErrno;
        }
    }
    return 0;
}

std::string pixelFormatName(uint32_t u32Format)
{
    std::string strName;
    for (uint32_t u32Shift = 0; u32Shift < 32; u32Shift += 8) {
        const char c = static_cast<char>(u32Format >> u32Shift & 0xff);
        if (c < 0x20 || c > 0x7e) {
            return text("%u", u32Format); // no four-character code
        }
        strName += c;
    }
    return strName;
}

std::string askedText(CAMERA_CALL_E eCall, const CameraRecord& record)
{
    switch (eCall) {
    case CAMERA_stat:
        return unusual("node", record.node_stat.u32Number, "");
    case CAMERA_open:
        return unusual("node", record.node_open.u32Number, "") +
               (0 == record.node_open.u32Number ? "" : " ") +
               "flags=" + flagsText(record.node_open.u32Flags);
    case CAMERA_mmap:
    case CAMERA_munmap:
        return CAMERA_mmap == eCall ? mappingText(record.mapping_mmap)
                                    : text("length=%u offset=%u", record.mapping_munmap.u32Length,
                                           record.mapping_munmap.u32Offset);
    case CAMERA_ioctl:
        return text("request=0x%08x", record.u32Value_ioctl);
    case CAMERA_ENUM_FMT:
        return text("index=%u type=%u", record.fmtdesc_ENUM_FMT.index,
                    record.fmtdesc_ENUM_FMT.type);
    case CAMERA_ENUM_FRAMESIZES:
        return text("index=%u pixelformat=%s", record.framesize_ENUM_FRAMESIZES.index,
                    pixelFormatName(record.framesize_ENUM_FRAMESIZES.pixel_format).c_str());
    case CAMERA_ENUM_FRAMEINTERVALS: {
        const v4l2_frmivalenum& interval = record.interval_ENUM_FRAMEINTERVALS;
        return text("index=%u pixelformat=%s width=%u height=%u", interval.index,
                    pixelFormatName(interval.pixel_format).c_str(), interval.width,
                    interval.height);
    }
    case CAMERA_G_FMT:
        return text("type=%u", record.format_G_FMT.u32Type);
    case CAMERA_S_FMT:
    case CAMERA_TRY_FMT:
        return text("type=%u ", record.format_S_FMT.u32Type) + sizeText(record.format_S_FMT.pix);
    case CAMERA_G_PARM:
        return text("type=%u", record.parm_G_PARM.type);
    case CAMERA_S_PARM: {
        const v4l2_captureparm& capture = record.parm_S_PARM.parm.capture;
        return text("type=%u timeperframe=%u/%u", record.parm_S_PARM.type,
                    capture.timeperframe.numerator, capture.timeperframe.denominator) +
               unusual("capability", capture.capability) +
               unusual("capturemode", capture.capturemode) +
               unusual("extendedmode", capture.extendedmode) +
               unusual("readbuffers", capture.readbuffers) +
               reservedText(capture.reserved, std::size(capture.reserved));
    }
    case CAMERA_CROPCAP:
        return text("type=%u", record.cropcap_CROPCAP.type);
    case CAMERA_G_CROP:
        return text("type=%u", record.crop_G_CROP.type);
    case CAMERA_S_CROP:
        return text("type=%u ", record.crop_S_CROP.type) + rectText("c", record.crop_S_CROP.c);
    case CAMERA_G_SELECTION:
        return text("type=%u target=0x%x", record.selection_G_SELECTION.type,
                    record.selection_G_SELECTION.target);
    case CAMERA_REQBUFS:
        return text("count=%u type=%u memory=%u", record.reqbufs_REQBUFS.count,
                    record.reqbufs_REQBUFS.type, record.reqbufs_REQBUFS.memory) +
               unusual("flags", record.reqbufs_REQBUFS.flags);
    case CAMERA_QUERYBUF:
    case CAMERA_QBUF:
        return text("type=%u memory=%u index=%u", record.buffer_QBUF.u32Type,
                    record.buffer_QBUF.u32Memory, record.buffer_QBUF.u32Index);
    case CAMERA_DQBUF:
        return text("type=%u memory=%u", record.buffer_DQBUF.u32Type,
                    record.buffer_DQBUF.u32Memory) +
               unusual("index", record.buffer_DQBUF.u32Index) +
               unusual("bytesused", record.buffer_DQBUF.u32BytesUsed) +
               unusual("flags", record.buffer_DQBUF.u32Flags) +
               unusual("field", record.buffer_DQBUF.u32Field) +
               unusual("sequence", record.buffer_DQBUF.u32Sequence) +
               unusual("seconds", record.buffer_DQBUF.u32Seconds) +
               unusual("microseconds", record.buffer_DQBUF.u32Microseconds) +
               unusual("offset", record.buffer_DQBUF.u32Offset) +
               unusual("length", record.buffer_DQBUF.u32Length);
    case CAMERA_STREAMON:
    case CAMERA_STREAMOFF:
        return text("type=%d", record.s32Value_STREAMON);
    case CAMERA_QUERYCTRL:
        return text("id=0x%08x", record.queryctrl_QUERYCTRL.id);
    case CAMERA_QUERY_EXT_CTRL:
        return text("id=0x%08x", record.queryExt_QUERY_EXT_CTRL.id);
    case CAMERA_QUERYMENU:
        return text("id=0x%08x index=%u", record.querymenu_QUERYMENU.id,
                    record.querymenu_QUERYMENU.index);
    case CAMERA_G_CTRL:
        return text("id=0x%08x", record.control_G_CTRL.id);
    case CAMERA_S_CTRL:
        return text("id=0x%08x value=%d", record.control_S_CTRL.id, record.control_S_CTRL.value);
    case CAMERA_G_EXT_CTRLS:
    case CAMERA_S_EXT_CTRLS:
    case CAMERA_TRY_EXT_CTRLS:
        return controlsText(record.controls_G_EXT_CTRLS, CAMERA_G_EXT_CTRLS != eCall);
    case CAMERA_ENUMINPUT:
        return text("index=%u", record.input_ENUMINPUT.index);
    case CAMERA_S_INPUT:
        return text("index=%d", record.s32Value_S_INPUT);
    case CAMERA_S_PRIORITY:
        return text("priority=%u", record.u32Value_S_PRIORITY);
    case CAMERA_SUBSCRIBE_EVENT:
    case CAMERA_UNSUBSCRIBE_EVENT:
        return text("type=%u", record.subscription_SUBSCRIBE_EVENT.type);
    default:
        return "";
    }
}

std::string grantedText(CAMERA_CALL_E eCall, const CameraRecord& record)
{
    switch (eCall) {
    case CAMERA_stat:
        return CAMERA_NODE_REGULAR == record.node_stat.u32Kind ? "regular" : "character";
    case CAMERA_QUERYCAP:
        return text("driver=%s capabilities=0x%08x device_caps=0x%08x",
                    reinterpret_cast<const char*>(record.cap_QUERYCAP.driver),
                    record.cap_QUERYCAP.capabilities, record.cap_QUERYCAP.device_caps);
    case CAMERA_ENUM_FMT:
        return text("pixelformat=%s", pixelFormatName(record.fmtdesc_ENUM_FMT.pixelformat).c_str());
    case CAMERA_ENUM_FRAMESIZES:
        return text("size=%ux%u", record.framesize_ENUM_FRAMESIZES.discrete.width,
                    record.framesize_ENUM_FRAMESIZES.discrete.height);
    case CAMERA_ENUM_FRAMEINTERVALS:
        return text("interval=%u/%u", record.interval_ENUM_FRAMEINTERVALS.discrete.numerator,
                    record.interval_ENUM_FRAMEINTERVALS.discrete.denominator);
    case CAMERA_G_FMT:
    case CAMERA_S_FMT:
    case CAMERA_TRY_FMT:
        return sizeText(record.format_G_FMT.pix) + text(" bytesperline=%u sizeimage=%u",
                                                        record.format_G_FMT.pix.bytesperline,
                                                        record.format_G_FMT.pix.sizeimage);
    case CAMERA_G_PARM:
    case CAMERA_S_PARM: {
        const v4l2_captureparm& capture = record.parm_G_PARM.parm.capture;
        return text("capability=0x%x timeperframe=%u/%u", capture.capability,
                    capture.timeperframe.numerator, capture.timeperframe.denominator);
    }
    case CAMERA_CROPCAP:
        return rectText("bounds", record.cropcap_CROPCAP.bounds) + " " +
               rectText("defrect", record.cropcap_CROPCAP.defrect);
    case CAMERA_G_SELECTION:
        return rectText("r", record.selection_G_SELECTION.r);
    case CAMERA_REQBUFS:
        return text("count=%u", record.reqbufs_REQBUFS.count);
    case CAMERA_QUERYBUF:
        return text("length=%u offset=%u flags=0x%x", record.buffer_QUERYBUF.u32Length,
                    record.buffer_QUERYBUF.u32Offset, record.buffer_QUERYBUF.u32Flags);
    case CAMERA_DQBUF:
        return text("index=%u bytesused=%u sequence=%u flags=0x%x", record.buffer_DQBUF.u32Index,
                    record.buffer_DQBUF.u32BytesUsed, record.buffer_DQBUF.u32Sequence,
                    record.buffer_DQBUF.u32Flags);
    case CAMERA_QUERYCTRL:
        return text("id=0x%08x", record.queryctrl_QUERYCTRL.id);
    case CAMERA_QUERY_EXT_CTRL:
        return text("id=0x%08x", record.queryExt_QUERY_EXT_CTRL.id);
    case CAMERA_G_CTRL:
    case CAMERA_S_CTRL:
        return text("value=%d", record.control_G_CTRL.value);
    case CAMERA_G_EXT_CTRLS:
    case CAMERA_S_EXT_CTRLS:
        return controlsText(record.controls_G_EXT_CTRLS, true);
    case CAMERA_G_INPUT:
        return text("index=%d", record.s32Value_G_INPUT);
    case CAMERA_G_PRIORITY:
        return text("priority=%u", record.u32Value_G_PRIORITY);
    default:
        return "";
    }
}
