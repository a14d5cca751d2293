// Asks the service to go down in order.
#pragma once

#include "Event.h"

/** Published by whoever wants the service to end; the module manager sets its quit flag. */
class SystemNeedQuitEvent : public Event
{
};
