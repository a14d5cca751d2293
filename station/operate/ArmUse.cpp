// Who moves the arm: one at a time.
#include "ArmUse.h"

ArmUse& ArmUse::getInstance()
{
    static ArmUse s_instance;
    return s_instance;
}

bool ArmUse::begin(ARM_USE_E eUse)
{
    ARM_USE_E eFree = ARM_FREE;
    return m_eUse.compare_exchange_strong(eFree, eUse);
}

void ArmUse::end()
{
    m_eUse = ARM_FREE;
}
