// The files of /proc and /sys that describe the camera.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

/**
 * Writes the files that stand for /proc/bus/input/devices, in which the camera (05a3:9230) has a
 * button while it is plugged in, and for /sys/dev/char/81:N/uevent, which is there while the camera
 * is /dev/videoN. Each is written as a whole. Any thread.
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

    /** @param u32Node  number of the camera's node; 0 means /dev/video0 */
    void setPlugged(bool bPlugged, uint32_t u32Node);
    /** @param u32Event  of the camera's event device; the service derives the node's from it */
    void setMode(MODE_E eMode, uint32_t u32Event);

private:
    void write();
    std::string ueventPath() const;

    const std::string m_strInputs;
    const std::string m_strDir;
    std::mutex m_mtx; // guards all below
    bool m_bPlugged = true;
    uint32_t m_u32Node = 0;
    MODE_E m_eMode = MODE_NORMAL;
    uint32_t m_u32Event = 2;
};
