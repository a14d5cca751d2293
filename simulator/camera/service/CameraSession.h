// One open of the camera by a program: its connection, its page and the thread that answers.
#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "UvcCamera.h"

/**
 * Answers the calls that a program makes through the shared page, one at a time, on a thread of its
 * own. Lives from the open until the program closed the descriptor or ended.
 */
class CameraSession : public ICameraHandle
{
public:
    /** Takes the connection over. @param camera  borrowed for the object's life */
    CameraSession(UvcCamera& camera, const std::string& strDir, int nSocket);
    /** Ends the thread; a caller that still waits learns that nobody will answer. */
    ~CameraSession() override;
    CameraSession(const CameraSession&) = delete;
    CameraSession& operator=(const CameraSession&) = delete;

    /**
     * Open the camera and answer the program's request on the connection.
     * @return whether it is open now; otherwise the object can go
     */
    bool start(CameraNode& node);

    int getSocket() const;
    /** Whether an unplug ended the connection: a hang-up can no longer be seen on it. */
    bool shutDown() const;
    /** Whether the program closed the camera, hung up or, where that cannot be seen, has ended. */
    bool isOver() const;

    void setReadable(bool bReadable) override;
    uint32_t takeOff() override;
    void unplugged() override;

private:
    bool makePage();
    void serve();
    void answer();

    UvcCamera& m_camera;
    const std::string m_strDir;
    std::string m_strFile;
    const int m_nSocket;
    const pid_t m_peer;
    CameraPage* m_pPage = nullptr;
    std::thread m_thread;
    std::atomic<bool> m_bEnd{false};
    std::atomic<bool> m_bClosed{false};   // the program has called close
    std::atomic<bool> m_bShutDown{false}; // after an unplug a hang-up looks the same
    bool m_bPacket = false;               // one waits on the program's descriptor; camera's lock
    uint32_t m_u32TakeOff = 0;            // packets the next answer asks to take; camera's lock
};
