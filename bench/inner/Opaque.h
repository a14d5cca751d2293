// Calls that the compiler cannot see through: the floors of the inner benchmarks.
#pragma once

#include "Event.h"

/** What a plain virtual call costs: one argument, one result, a counter. */
class IHandler
{
public:
    IHandler() = default;
    IHandler(const IHandler&) = delete;
    IHandler& operator=(const IHandler&) = delete;
    virtual ~IHandler() = default;

    virtual int onEvent(Event* pEvent) = 0;
};

/** Defined in a file of its own, so that neither the call nor what it does is inlined. */
class Handler : public IHandler
{
public:
    int onEvent(Event* pEvent) override;

    unsigned m_nCalls = 0;
};

/** Does nothing, out of the caller's sight. */
void emptyCall();
