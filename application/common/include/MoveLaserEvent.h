// Where to move the laser arm: the spot that the vision side found.
#pragma once

#include "Event.h"

/** Published on EventBus<MoveLaserEvent>; the units are the vision plug-in's. */
class MoveLaserEvent : public Event
{
public:
    MoveLaserEvent(float fX, float fY) : m_fX(fX), m_fY(fY) {}

    float m_fX;
    float m_fY;
};
