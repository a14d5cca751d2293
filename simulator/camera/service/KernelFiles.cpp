// The files of /proc and /sys that describe the camera.
#include "KernelFiles.h"

#include <cstdio>

#include <unistd.h>

#include "preload/CameraProtocol.h"

namespace {

// In the kernel's layout, blanks at line ends included.
const char* const BEFORE = "I: Bus=0019 Vendor=0001 Product=0001 Version=0100\n"
                           "N: Name=\"gpio-keys\"\n"
                           "P: Phys=gpio-keys/input0\n"
                           "S: Sysfs=/devices/platform/gpio-keys/input/input0\n"
                           "U: Uniq=\n"
                           "H: Handlers=kbd event0 \n"
                           "B: PROP=0\n"
                           "B: EV=3\n"
                           "B: KEY=40000000 0 0 0 0 0 0 0 0 0 0 0 0\n"
                           "\n"
                           "I: Bus=0003 Vendor=046d Product=c31c Version=0110\n"
                           "N: Name=\"USB Keyboard\"\n"
                           "P: Phys=usb-101c0000.ehci-1.2/input0\n"
                           "S: Sysfs=/devices/platform/ehci-platform/usb1/1-1/1-1.2/1-1.2:1.0/"
                           "input/input1\n"
                           "U: Uniq=\n"
                           "H: Handlers=sysrq kbd leds event1 \n"
                           "B: PROP=0\n"
                           "B: EV=120013\n"
                           "B: KEY=10000 7 ff9f207a c14057ff febeffdf ffefffff ffffffff fffffffe\n"
                           "B: MSC=10\n"
                           "B: LED=7\n"
                           "\n";
const char* const CAMERA_HEAD = "I: Bus=0003 Vendor=05a3 Product=9230 Version=0100\n"
                                "N: Name=\"USB 2.0 Camera: USB Camera\"\n"
                                "P: Phys=usb-101c0000.ehci-1.1/button\n"
                                "S: Sysfs=/devices/platform/ehci-platform/usb1/1-1/1-1.1/"
                                "1-1.1:1.0/input/input2\n"
                                "U: Uniq=\n";
const char* const CAMERA_TAIL = "B: PROP=0\n"
                                "B: EV=3\n"
                                "B: KEY=100000 0 0 0 0 0 0\n"
                                "\n";

/** A reader sees the old file or the new one. */
void replace(const std::string& strPath, const std::string& strText)
{
    const std::string strNew = strPath + ".new";
    FILE* pFile = fopen(strNew.c_str(), "we");
    if (nullptr == pFile) {
        perror(strNew.c_str());
        return;
    }
    const bool bWritten = EOF != fputs(strText.c_str(), pFile);
    if (0 != fclose(pFile) || !bWritten || 0 != ::rename(strNew.c_str(), strPath.c_str())) {
        perror(strPath.c_str());
    }
}

} // namespace

KernelFiles::KernelFiles(const std::string& strDir)
    : m_strInputs(strDir + "/" CAMERA_INPUTS_FILE), m_strDir(strDir)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    write();
}

KernelFiles::~KernelFiles()
{
    ::unlink(m_strInputs.c_str());
    ::unlink(ueventPath().c_str());
}

std::string KernelFiles::ueventPath() const
{
    char acName[32];
    snprintf(acName, sizeof(acName), "/" CAMERA_UEVENT_FILE, m_u32Node);
    return m_strDir + acName;
}

void KernelFiles::setPlugged(bool bPlugged, uint32_t u32Node)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    ::unlink(ueventPath().c_str()); // the next one may have another number
    m_bPlugged = bPlugged;
    m_u32Node = u32Node;
    write();
}

void KernelFiles::setMode(MODE_E eMode, uint32_t u32Event)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    m_eMode = eMode;
    m_u32Event = u32Event;
    write();
}

void KernelFiles::write()
{
    if (m_bPlugged) {
        const std::string strNode = std::to_string(m_u32Node);
        replace(ueventPath(), "MAJOR=81\nMINOR=" + strNode + "\nDEVNAME=video" + strNode + "\n");
    }
    if (MODE_MISSING == m_eMode) {
        ::unlink(m_strInputs.c_str());
        return;
    }
    std::string strText = BEFORE;
    if (m_bPlugged) {
        strText += CAMERA_HEAD;
        if (MODE_NO_HANDLERS != m_eMode) {
            strText += "H: Handlers=kbd event" + std::to_string(m_u32Event) + " \n";
        }
        strText += CAMERA_TAIL;
    }
    replace(m_strInputs, strText);
}
