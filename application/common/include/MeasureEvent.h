// What the vision side measured: the laser arm's new height.
#pragma once

#include "Event.h"

/** Published on EventBus<MeasureEvent>; the unit is the vision plug-in's. */
class MeasureEvent : public Event
{
public:
    explicit MeasureEvent(float fValue) : m_fValue(fValue) {}

    float m_fValue;
};
