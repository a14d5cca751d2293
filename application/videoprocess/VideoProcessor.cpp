// The host of the vision plug-in: measuring, and correcting lens distortion.
#include "VideoProcessor.h"

#include <new>

#include <dlfcn.h>

#include "EventBus.h"
#include "IdlePrintEvent.h"
#include "Log.h"
#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "SetExposureEvent.h"
#include "Time.h"
#include "VideoFrameEvent.h"

static const char* const SOURCE_NAME = "videoprocess/VideoProcessor";

static const char* const LIBRARY = "./libframe_process.so";

namespace {

const char* loaderError()
{
    const char* pError = dlerror();
    return (nullptr == pError) ? "" : pError; // a name that resolves to null is no error of its own
}

template <class F> bool find(void* pHandle, const char* pName, F& pFunc)
{
    pFunc = reinterpret_cast<F>(dlsym(pHandle, pName));
    return nullptr != pFunc;
}

} // namespace

VideoProcessor::VideoProcessor()
{
    // Handlers come and go on these until the destructor has taken the last one back.
    (void)Log::getInstance();
    (void)EventBus<VideoFrameEvent>::getInstance();
    (void)EventBus<IdlePrintEvent>::getInstance();
    (void)EventBus<SetExposureEvent>::getInstance();
    (void)EventBus<MoveLaserEvent>::getInstance();
    (void)EventBus<MeasureEvent>::getInstance();
}

VideoProcessor::~VideoProcessor()
{
    (void)stop(); // succeeds always
}

VideoProcessor& VideoProcessor::getInstance()
{
    static VideoProcessor s_instance;
    return s_instance;
}

VideoProcessor::Plugin VideoProcessor::getPlugin()
{
    const MutexGuard guard(m_mtxPlugin);
    return m_plugin;
}

RET_E VideoProcessor::init()
{
    Plugin plugin;
    dlerror(); // forget what failed before
    plugin.m_pHandle = dlopen(LIBRARY, RTLD_LAZY);
    if (nullptr == plugin.m_pHandle) {
        LOG(7, "open %s failed(%s) !\n", LIBRARY, loaderError());
        return RET_SUCCESS; // what an earlier init has loaded stays
    }
    if (resolve(plugin)) {
        plugin.pInit();
    }
    // Shown to the other threads only now: no entry point runs before the plug-in's init has.
    const MutexGuard guard(m_mtxPlugin);
    m_plugin = plugin;
    return RET_SUCCESS;
}

/** @return false at the first name that is missing (logged); the later ones stay null */
bool VideoProcessor::resolve(Plugin& plugin)
{
    void* pHandle = plugin.m_pHandle;
    if (!find(pHandle, "init", plugin.pInit)) {
        LOG_AS("init", 7, "dlsym init failed(%s) !\n", loaderError());
    } else if (!find(pHandle, "uninit", plugin.pUninit)) {
        LOG_AS("init", 7, "dlsym uninit failed(%s) !\n", loaderError());
    } else if (!find(pHandle, "undistort", plugin.pUndistort)) {
        LOG_AS("init", 7, "dlsym undistort failed(%s) !\n", loaderError());
    } else if (!find(pHandle, "autoFocus", plugin.pAutoFocus)) {
        LOG_AS("init", 7, "dlsym autoFocus failed(%s) !\n", loaderError());
    } else if (!find(pHandle, "findPos", plugin.pFindPos)) {
        LOG_AS("init", 7, "dlsym findPos failed(%s) !\n", loaderError());
    } else if (!find(pHandle, "setExposure", plugin.pSetExposure)) {
        LOG_AS("init", 7, "dlsym setExposure failed(%s) !\n", loaderError());
    } else if (!find(pHandle, "easyFun", plugin.pEasyFun)) {
        LOG_AS("init", 7, "dlsym easyFun failed(%s) !\n", loaderError());
    } else {
        return true;
    }
    return false;
}

RET_E VideoProcessor::start()
{
    EventBus<IdlePrintEvent>::subscribe(this, &VideoProcessor::onIdlePrint);
    return RET_SUCCESS;
}

RET_E VideoProcessor::stop()
{
    EventBus<IdlePrintEvent>::unsubscribe(this, &VideoProcessor::onIdlePrint);
    return RET_SUCCESS;
}

RET_E VideoProcessor::uninit()
{
    const Plugin plugin = getPlugin();
    if (nullptr != plugin.pUninit) {
        plugin.pUninit();
    }
    // Deliberate: a loaded library is never closed, frames and threads may still be inside it.
    return RET_SUCCESS;
}

bool VideoProcessor::canMeasure()
{
    const Plugin plugin = getPlugin();
    return nullptr != plugin.m_pHandle && nullptr != plugin.pFindPos &&
           nullptr != plugin.pAutoFocus && nullptr != plugin.pSetExposure;
}

RET_E VideoProcessor::measure(float* pResult)
{
    *pResult = 0;
    Measurement measurement;
    const RET_E eResult = measure(measurement);
    *pResult = measurement.fHeight;
    return eResult;
}

RET_E VideoProcessor::measure(Measurement& measurement)
{
    measurement = {};
    if (!canMeasure()) {
        return RET_FAILED;
    }
    const Plugin plugin = getPlugin();

    getFrame(measurement.spotFrame);
    plugin.pSetExposure(&measurement.s32Exposure);
    SetExposureEvent exposureEvent(0, measurement.s32Exposure);
    EventBus<SetExposureEvent>::publish(exposureEvent);

    const VENC_FRAME_T* pFrame = measurement.spotFrame.get();
    if (plugin.pFindPos(pFrame->u32Size, pFrame->u32Width, pFrame->u32Height, pFrame->au8Data,
                        &measurement.fX, &measurement.fY) > 0) {
        return RET_FAILED;
    }
    MoveLaserEvent moveEvent(measurement.fX, measurement.fY);
    EventBus<MoveLaserEvent>::publish(moveEvent);

    getFrame(measurement.heightFrame); // what the camera sees once the move was announced
    pFrame = measurement.heightFrame.get();
    if (plugin.pAutoFocus(pFrame->u32Size, pFrame->u32Width, pFrame->u32Height, pFrame->au8Data,
                          &measurement.fHeight) > 0) {
        return RET_FAILED;
    }
    MeasureEvent measureEvent(measurement.fHeight);
    EventBus<MeasureEvent>::publish(measureEvent);
    return RET_SUCCESS;
}

void VideoProcessor::undistort(PVENC_FRAME_T& in, PVENC_FRAME_T& out)
{
    const Plugin plugin = getPlugin();
    const VENC_FRAME_T* pIn = in.get();
    FRAME_PROCESS_UNDISTORT_T record{};
    if (nullptr == pIn || nullptr == plugin.m_pHandle || nullptr == plugin.pUndistort ||
        0 !=
            plugin.pUndistort(pIn->u32Size, pIn->u32Width, pIn->u32Height, pIn->au8Data, &record)) {
        out = in;
        return;
    }
    // Deliberate: an empty picture that counts as a success leaves out as it is.
    if (record.s32Size <= 0 || record.s32Width <= 0 || record.s32Height <= 0) {
        return;
    }
    VENC_FRAME_T header{};
    header.u32Size = static_cast<uint32_t>(record.s32Size);
    header.u64TimeStamp = pIn->u64TimeStamp;
    header.u32Format = pIn->u32Format;
    header.u32Width = static_cast<uint32_t>(record.s32Width);
    header.u32Height = static_cast<uint32_t>(record.s32Height);
    PVENC_FRAME_T corrected;
    if (nullptr != record.pData) {
        corrected = makeFrame(header, record.pData);
    }
    out = (nullptr != corrected.get()) ? corrected : in; // better uncorrected than no picture
}

int VideoProcessor::onIdlePrint(Event* pEvent)
{
    const auto& event = dynamic_cast<IdlePrintEvent&>(*pEvent);
    const Plugin plugin = getPlugin();
    if (nullptr == plugin.m_pHandle || nullptr == plugin.pEasyFun) {
        return RET_FAILED;
    }
    PVENC_FRAME_T frame;
    try {
        getFrame(frame);
    } catch (const std::bad_alloc&) {
        return RET_FAILED; // the publisher's thread continues
    }
    const VENC_FRAME_T* pFrame = frame.get();
    plugin.pEasyFun(pFrame->u32Size, pFrame->u32Width, pFrame->u32Height, pFrame->au8Data,
                    event.m_pArg1, event.m_pArg2, event.m_pValues);
    return 0;
}

void VideoProcessor::getFrame(PVENC_FRAME_T& frame)
{
    const MutexGuard turn(m_mtxWait);
    {
        const MutexGuard guard(m_mtxFrame);
        m_vecFrame.clear();
        m_nWantStream = 0;
    }
    EventBus<VideoFrameEvent>::subscribe(this, &VideoProcessor::onVideoFrame);
    while (!hasFrame()) {
        sleepFor(Time(0, 20000));
    }
    EventBus<VideoFrameEvent>::unsubscribe(this, &VideoProcessor::onVideoFrame);
    const MutexGuard guard(m_mtxFrame);
    frame = m_vecFrame.front();
    m_vecFrame.clear();
}

bool VideoProcessor::hasFrame()
{
    const MutexGuard guard(m_mtxFrame);
    return !m_vecFrame.empty();
}

int VideoProcessor::onVideoFrame(Event* pEvent)
{
    const auto& event = dynamic_cast<VideoFrameEvent&>(*pEvent);
    const MutexGuard guard(m_mtxFrame);
    if (event.m_nStream != m_nWantStream) {
        return 0;
    }
    try {
        m_vecFrame.push_back(event.m_frame);
    } catch (const std::bad_alloc&) {
        // The frame is dropped: the capture thread continues, and the waiting caller gets the next.
    }
    return 0;
}
