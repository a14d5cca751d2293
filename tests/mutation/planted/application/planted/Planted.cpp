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

static const int LIMIT = 9;
static const int SLOTS = 4; // an array's size can't be chosen when the program runs

int clipped(int nValue)
{
    return (nValue > LIMIT) ? LIMIT : nValue;
}

int slots()
{
    struct Slots
    {
        char acSlot[SLOTS];
    };
    return static_cast<int>(sizeof(Slots));
}

long length(const char* pBegin, const char* pEnd)
{
    return pEnd - pBegin;
}

int calledByNobody(int nValue)
{
    return nValue * 2;
}
