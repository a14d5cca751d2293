// The virtual camera, as a test handles it.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "ControlClient.h"
#include "ScratchFolder.h"

/**
 * Runs kestrel-camera in a folder of its own, and points this process's preloaded library at it:
 * "/dev/video0" and the list of input devices are the camera's until the object goes. For programs
 * with the entry point of CameraMain.cpp; one at a time, made before the threads that use it.
 */
class VirtualCamera
{
public:
    /** @param vecOption  further options of kestrel-camera */
    explicit VirtualCamera(const std::vector<std::string>& vecOption = {});
    VirtualCamera(const VirtualCamera&) = delete;
    VirtualCamera& operator=(const VirtualCamera&) = delete;
    ~VirtualCamera();

    /** Send a command and wait for its answer, which must begin with "ok"; see its README.md. */
    std::string command(const std::string& strLine);

    /**
     * The device calls so far, one line each without time and numbers of process and session, e.g.
     * "QBUF type=1 memory=1 index=0 = 0". Notes and commands are left out.
     */
    std::vector<std::string> readJournal() const;

    /** Forget the calls so far. */
    void clearJournal();

    /** How many calls begin with the text, e.g. "QBUF " or "DQBUF type=1 memory=1 = -1 EIO". */
    size_t count(const std::string& strBegin) const;

    /** Wait until so many calls begin with the text. @return false when it takes a minute */
    bool waitForCalls(const std::string& strBegin, size_t uTimes) const;

    /** A frame that the camera produced; for a camera with the option "--keep". */
    struct Frame
    {
        uint32_t u32Number;
        std::string strPicture;
    };
    /** The frames that went into a buffer and are still kept, oldest first. */
    std::vector<Frame> frames() const;

private:
    ScratchFolder m_folder;
    pid_t m_nPid = -1;
    ControlClient m_control;
};
