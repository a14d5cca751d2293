// The base of everything that an event bus or the reactor hands to a callback.
#pragma once

/** Empty; each class of events holds its own data. */
class Event
{
public:
    Event() = default;
    Event(const Event&) = default;
    Event& operator=(const Event&) = default;
    virtual ~Event() = default;
};
