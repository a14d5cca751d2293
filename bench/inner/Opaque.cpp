// Calls that the compiler cannot see through: the floors of the inner benchmarks.
#include "Opaque.h"

int Handler::onEvent(Event*)
{
    ++m_nCalls;
    return 0;
}

void emptyCall() {}
