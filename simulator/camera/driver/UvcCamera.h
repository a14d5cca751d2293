// The virtual camera's driver: answers device calls as the kernel's UVC driver does.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "CallText.h"
#include "CameraFaults.h"
#include "CameraJournal.h"
#include "FrameLog.h"
#include "PictureSource.h"
#include "VideoControls.h"
#include "VideoFormats.h"
#include "VideoQueue.h"

/**
 * One open of the camera, as the driver sees it. The driver calls it with its lock held: it must
 * not block and not call back.
 */
class ICameraHandle
{
public:
    virtual ~ICameraHandle() = default;
    /** From now on select finds the descriptor readable, or no longer does. */
    virtual void setReadable(bool bReadable) = 0;
    /** Packets that the caller must read off its descriptor for that; each is reported once. */
    virtual uint32_t takeOff() = 0;
    /** The camera is gone for this open; it does not come back. */
    virtual void unplugged() = 0;

    uint32_t m_u32Session = 0;
    uint32_t m_u32Priority = V4L2_PRIORITY_DEFAULT;
    bool m_bDead = false; // unplugged
    // Spent in the library until the latest call; wraps.
    std::atomic<uint32_t> m_u32CpuMicroseconds{0};
};

/**
 * The camera's state behind one lock: plugged or not, opens, format, buffers, controls, faults, the
 * frame clock and the journal of calls. All operations may be called on any thread.
 *
 * One open at a time has the privilege to set up and stream (EBUSY for the others); it is taken
 * with the first of S_FMT, S_PARM and REQBUFS and given back with REQBUFS of 0 buffers or the
 * close. README.md lists the differences from the kernel.
 */
class UvcCamera
{
public:
    /** Notified of plugging, for the list of input devices; called with the lock held. */
    using PlugHandler = void (*)(void* pContext, bool bPlugged, uint32_t u32Node);

    UvcCamera(const std::string& strDir, CameraJournal& journal, FrameLog& frameLog);

    void onPlug(PlugHandler pHandler, void* pContext);

    /** stat(2) and open(2): the error number is set in the record. */
    void stat(CameraNode& node);
    /** @return whether the handle is now open: then close() must follow */
    bool open(CameraNode& node, ICameraHandle& handle);
    /** The program has its descriptor: from now on readability is reported to it. */
    void opened(ICameraHandle& handle);

    struct Answer
    {
        int nErrno = 0;
        bool bWait = false;      // a blocking dequeue found nothing: ask again when readable
        uint32_t u32TakeOff = 0; // packets to take off the descriptor
    };
    /** Answer any other call; one record holds both question and answer. */
    Answer call(ICameraHandle& handle, uint32_t u32Pid, CAMERA_CALL_E eCall, CameraRecord& record,
                bool bBlocking);

    /** The handle's last descriptor is closed. Not journaled: the call "close" was, if made. */
    void close(ICameraHandle& handle);

    void unplug();
    /**
     * In the order of the kernel's driver: the transfers end, which returns every queued buffer
     * empty and broken; QBUF is refused; after this time the node goes, and all opens with it.
     */
    void unplugSlowly(std::chrono::milliseconds time);
    /** @param u32Node  N of /dev/videoN */
    void replug(uint32_t u32Node = 0);

    /** Have the faults changed under the lock. */
    template <typename Change> void changeFaults(const Change& change)
    {
        const std::lock_guard<std::mutex> guard(m_mtx);
        change(m_faults);
        m_condition.notify_all();
    }

    /** Frames per second, 0 for the rate that S_PARM set. */
    void setRate(uint32_t u32Rate);

    struct Status
    {
        bool bPlugged;
        bool bStreaming;
        bool bFrozen;
        uint32_t u32Opens;
        uint32_t u32Number; // of the latest frame
        double dRate;
        VideoFormats::Choice choice;
    };
    Status status();
    /** Processor time that the programs with an open camera spent in the library's calls; wraps. */
    uint32_t cpuMicroseconds();

    /** The latest picture that went into a buffer. */
    Truth truth();

    /**
     * The thread that draws calls it in a loop: wait until the next frame is due.
     * @return false when quit() was called
     */
    bool waitForFrame(PictureRequest& request);
    /** The picture for the latest request; dropped when nothing streams any more. */
    void putFrame(const PictureRequest& request, const Picture& picture);
    void quit();

private:
    using Clock = std::chrono::steady_clock;

    static constexpr v4l2_fract DEFAULT_INTERVAL{1, 30}; // of every frame size

    int dispatch(ICameraHandle& handle, CAMERA_CALL_E eCall, CameraRecord& record, bool bBlocking,
                 bool& bWait);
    int formatCall(ICameraHandle& handle, CAMERA_CALL_E eCall, CameraFormat& format);
    int rateCall(ICameraHandle& handle, CAMERA_CALL_E eCall, v4l2_streamparm& parm);
    int cropCall(CAMERA_CALL_E eCall, CameraRecord& record) const;
    int bufferCall(ICameraHandle& handle, CAMERA_CALL_E eCall, CameraRecord& record, bool bBlocking,
                   bool& bWait);
    int requestBuffers(ICameraHandle& handle, v4l2_requestbuffers& request);
    int streamCall(ICameraHandle& handle, CAMERA_CALL_E eCall, int32_t s32Type);
    int controlCall(CAMERA_CALL_E eCall, CameraRecord& record);
    int inputCall(CAMERA_CALL_E eCall, CameraRecord& record) const;
    int priorityCall(ICameraHandle& handle, CAMERA_CALL_E eCall, uint32_t& u32Priority);
    int blockedByPriority(const ICameraHandle& handle, CAMERA_CALL_E eCall) const;

    int acquire(ICameraHandle& handle);
    void release(ICameraHandle& handle);
    void unplugLocked();
    void settle(ICameraHandle& handle);
    std::chrono::nanoseconds getInterval() const;

    CameraJournal& m_journal;
    FrameLog& m_frameLog;
    PlugHandler m_pPlugHandler = nullptr;
    void* m_pPlugContext = nullptr;

    std::mutex m_mtx; // guards all below
    std::condition_variable m_condition;
    bool m_bQuit = false;
    bool m_bPlugged = true;
    bool m_bLeaving = false;  // unplugged, and the node still there
    Clock::time_point m_gone; // when it goes
    uint32_t m_u32Node = 0;   // N of /dev/videoN
    uint32_t m_u32LastSession = 0;
    std::vector<ICameraHandle*> m_vecHandle;
    ICameraHandle* m_pOwner = nullptr; // who has the privilege to stream
    VideoFormats::Choice m_choice;
    v4l2_fract m_interval = DEFAULT_INTERVAL;
    uint32_t m_u32ForcedRate = 0;
    VideoControls m_controls;
    VideoQueue m_queue;
    CameraFaults m_faults;
    uint32_t m_u32Number = 0;   // frames since the program started
    uint32_t m_u32Sequence = 0; // frames since streaming was switched on
    uint32_t m_u32Run = 0;      // times streaming was switched on
    bool m_bDueKnown = false;
    Clock::time_point m_due;
    Truth m_truth;
};
