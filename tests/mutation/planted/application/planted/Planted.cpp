// What the mutation run's own test changes.
#include "Planted.h"

int larger(int nFirst, int nSecond)
{
    // Equal ones are alike: ">=" for ">" can't be seen, "<" can.
    return (nFirst > nSecond) ? nFirst : nSecond;
}

bool step(int& nValue)
{
    bool bStepped = false;
    while (nValue > 0) {
        nValue = nValue - 3; // without it there is no end
        bStepped = true;
    }
    return bStepped;
}
