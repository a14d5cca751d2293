// The line that resets the motion controller: GPIO 106, through sysfs.
#pragma once

#include <string>

/**
 * Any thread; one at a time.
 *
 * Deliberate: no result is looked at, the line may be exported already or not be there at all; and
 * no descriptor is closed, so each call leaves some open (close-on-exec).
 */
class ResetLine
{
public:
    /**
     * Make the line an output, high; prints to standard output. Leaves three descriptors open.
     *
     * Between the two the kernel drives the line low ("out" of sysfs starts low), so that this may
     * reset the controller, too.
     */
    void makeOutput();

    /** makeOutput(), then 500 ms low and high again; takes that long. Leaves four open. */
    void pulse();

private:
    static std::string getPinFile(const char* pName);
};
