// The base of everything that an event bus or the reactor hands to a callback.
#pragma once

/** Holds nothing; what an event carries stands in its own class. */
class Event
{
public:
    Event() = default;
    Event(const Event&) = default;
    Event& operator=(const Event&) = default;
    virtual ~Event() = default;
};
