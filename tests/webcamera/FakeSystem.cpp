// Stands for the device side: hands out frames, measures and corrections as a test wants them.
#include "FakeSystem.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "SystemModule.h"
#include "VideoConsumer.h"
#include "VideoFrameEvent.h"

namespace {

struct State
{
    std::mutex mtx;
    std::vector<IConsumer*> vecConsumer; // guarded by mtx
    std::atomic<float> fMeasure{0};
    std::atomic<int> nMeasures{0};
    FakeSystem::Correction correction;
    PVENC_FRAME_T first; // for who registers; empty for none
};

State& state()
{
    static State s_state;
    return s_state;
}

} // namespace

void FakeSystem::reset()
{
    const std::lock_guard<std::mutex> guard(state().mtx);
    state().vecConsumer.clear();
    state().fMeasure = 0;
    state().nMeasures = 0;
    state().correction = nullptr;
    state().first = PVENC_FRAME_T();
}

size_t FakeSystem::consumerCount()
{
    const std::lock_guard<std::mutex> guard(state().mtx);
    return state().vecConsumer.size();
}

std::string FakeSystem::streams()
{
    const std::lock_guard<std::mutex> guard(state().mtx);
    std::string strStreams;
    for (IConsumer* pConsumer : state().vecConsumer) {
        strStreams += std::to_string(dynamic_cast<VideoConsumer&>(*pConsumer).getStream()) + " ";
    }
    return strStreams;
}

void FakeSystem::deliver(PVENC_FRAME_T& frame)
{
    const std::lock_guard<std::mutex> guard(state().mtx);
    for (IConsumer* pConsumer : state().vecConsumer) {
        VideoFrameEvent event(0, frame);
        if (0 != pConsumer->consume(event, frame)) {
            throw std::runtime_error("a consumer has failed");
        }
    }
}

void FakeSystem::deliverAtOnce(const PVENC_FRAME_T& frame)
{
    state().first = frame;
}

void FakeSystem::setMeasure(float fMeasure)
{
    state().fMeasure = fMeasure;
}

int FakeSystem::measureCount()
{
    return state().nMeasures;
}

void FakeSystem::setCorrection(const Correction& correction)
{
    state().correction = correction;
}

PVENC_FRAME_T makeFrame(uint32_t u32Size, uint32_t u32Format, uint32_t u32Width, uint32_t u32Height,
                        unsigned uFirst)
{
    VENC_FRAME_T header{};
    header.u32Size = u32Size;
    header.u64TimeStamp = 1;
    header.u32Format = u32Format;
    header.u32Width = u32Width;
    header.u32Height = u32Height;
    return makeFrame(header, payload(u32Size, uFirst).data());
}

std::string payload(uint32_t u32Size, unsigned uFirst)
{
    std::string strPayload(u32Size, '\0');
    for (uint32_t i = 0; i < u32Size; ++i) {
        strPayload[i] = static_cast<char>(uFirst + i);
    }
    return strPayload;
}

SystemModule::SystemModule()
{
    (void)state();
}

SystemModule::~SystemModule() = default;

SystemModule& SystemModule::getInstance()
{
    static SystemModule s_instance;
    return s_instance;
}

RET_E SystemModule::initModule()
{
    return RET_SUCCESS;
}

RET_E SystemModule::startModule()
{
    return RET_SUCCESS;
}

RET_E SystemModule::stopModule()
{
    return RET_SUCCESS;
}

RET_E SystemModule::uninitModule()
{
    return RET_SUCCESS;
}

int SystemModule::onDebugCmd(Event*)
{
    return 0;
}

RET_E SystemModule::registerConsumer(IConsumer* pConsumer)
{
    const std::lock_guard<std::mutex> guard(state().mtx);
    state().vecConsumer.push_back(pConsumer);
    if (nullptr != state().first.get()) {
        VideoFrameEvent event(0, state().first);
        (void)pConsumer->consume(event, state().first);
    }
    return RET_SUCCESS;
}

RET_E SystemModule::cancelConsumer(IConsumer* pConsumer)
{
    const std::lock_guard<std::mutex> guard(state().mtx);
    auto& vecConsumer = state().vecConsumer;
    const auto it = std::find(vecConsumer.begin(), vecConsumer.end(), pConsumer);
    if (vecConsumer.end() == it) {
        return RET_FAILED;
    }
    vecConsumer.erase(it);
    return RET_SUCCESS;
}

RET_E SystemModule::measure(float* pResult)
{
    ++state().nMeasures;
    *pResult = state().fMeasure;
    return (0 == *pResult) ? RET_FAILED : RET_SUCCESS;
}

void SystemModule::undistort(PVENC_FRAME_T& in, PVENC_FRAME_T& out)
{
    if (nullptr == state().correction) {
        out = in;
    } else {
        state().correction(in, out);
    }
}
