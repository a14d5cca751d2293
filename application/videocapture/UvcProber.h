// Finds the video node of a USB camera.
#pragma once

#include <cstdint>

/** A camera is known by the input device that its driver registers for the camera's button. */
class UvcProber
{
public:
    /** Created on first use; outlives every object whose constructor called this. */
    static UvcProber& getInstance();
    UvcProber(const UvcProber&) = delete;
    UvcProber& operator=(const UvcProber&) = delete;
    virtual ~UvcProber() = default;

    /**
     * Look the camera up in "/proc/bus/input/devices". Any thread.
     *
     * Deliberate: the index follows from the number of the camera's input event by the board's
     * fixed numbering: event 5 is video 0, event 6 is video 1, event 7 is video 2; a handlers line
     * without a number counts as event 0.
     * @return the N of "/dev/videoN", -1 when the list names no such camera or can't be read
     */
    int32_t find(uint32_t u32Vendor, uint32_t u32Product);

private:
    UvcProber() = default;
};
