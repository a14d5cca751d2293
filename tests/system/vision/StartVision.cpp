// Linked to main.cpp beside the service: the same program with its vision host up. Every event of
// the vision host is printed with the thread that it was published on.
#include <cstdio>

#include <pthread.h>

#include "EventBus.h"
#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "SetExposureEvent.h"
#include "VideoProcessor.h"

namespace {

const char* threadName()
{
    static thread_local char t_acName[16]; // 16; pthread_setname_np(3)
    return 0 == pthread_getname_np(pthread_self(), t_acName, sizeof(t_acName)) ? t_acName : "?";
}

class StartVision
{
public:
    StartVision()
    {
        EventBus<SetExposureEvent>::subscribe(this, &StartVision::onSetExposure);
        EventBus<MoveLaserEvent>::subscribe(this, &StartVision::onMoveLaser);
        EventBus<MeasureEvent>::subscribe(this, &StartVision::onMeasure);
        (void)VideoProcessor::getInstance().init();  // always succeeds
        (void)VideoProcessor::getInstance().start(); // always succeeds
    }

    int onSetExposure(Event* pEvent)
    {
        const auto& event = dynamic_cast<SetExposureEvent&>(*pEvent);
        printf("event exposure %d %d on %s\n", event.m_nStream, event.m_nExposure, threadName());
        return 0;
    }

    int onMoveLaser(Event* pEvent)
    {
        const auto& event = dynamic_cast<MoveLaserEvent&>(*pEvent);
        printf("event move %.4f %.4f on %s\n", static_cast<double>(event.m_fX),
               static_cast<double>(event.m_fY), threadName());
        return 0;
    }

    int onMeasure(Event* pEvent)
    {
        const auto& event = dynamic_cast<MeasureEvent&>(*pEvent);
        printf("event measure %.4f on %s\n", static_cast<double>(event.m_fValue), threadName());
        return 0;
    }
};

// Never destroyed: the service ends by a signal, or with its buses still in use.
StartVision& g_startVision = *new StartVision;

} // namespace
