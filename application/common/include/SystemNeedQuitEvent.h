// Asks the service to go down in order.
#pragma once

#include "Event.h"

/** Published to end the service; the module manager sets its quit flag. */
class SystemNeedQuitEvent : public Event
{
};
