// Who moves the arm: one at a time.
#include "ArmUse.h"

#include "Time.h"

static const Time STEP(0, 20000);
static const int STEPS = 250; // 5 s

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

void ArmUse::change(ARM_USE_E eUse)
{
    m_eUse = eUse;
}

void ArmUse::awaitJobEnd() const
{
    for (int i = 0; i < STEPS && ARM_JOB_END == m_eUse; ++i) {
        sleepFor(STEP);
    }
}
