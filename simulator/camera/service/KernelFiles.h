// The files of /proc and /sys that tell of the camera.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

/**
 * Writes the files that stand for /proc/bus/input/devices, in which the camera (05a3:9230) has a
 * button while it is plugged in, and for /sys/dev/char/81:0/uevent, which is there while the camera
 * is. Each is written as a whole. Any thread.
 */
class KernelFiles
{
public:
    enum MODE_E
    {
        MODE_NORMAL,
        MODE_MISSING,     // no file at all
        MODE_NO_HANDLERS, // the camera's entry lacks its "H:" line
    };

    /** Writes the files of a camera that is plugged in. */
    explicit KernelFiles(const std::string& strDir);
    /** Removes them. */
    ~KernelFiles();
    KernelFiles(const KernelFiles&) = delete;
    KernelFiles& operator=(const KernelFiles&) = delete;

    void setPlugged(bool bPlugged);
    /** @param u32Event  number of the camera's event device; 2 means /dev/video0 */
    void setMode(MODE_E eMode, uint32_t u32Event);

private:
    void write();

    const std::string m_strInputs;
    const std::string m_strUevent;
    std::mutex m_mtx; // guards all below
    bool m_bPlugged = true;
    MODE_E m_eMode = MODE_NORMAL;
    uint32_t m_u32Event = 2;
};
