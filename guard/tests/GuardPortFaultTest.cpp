// Beam off on a port whose calls are interrupted.
#include <gtest/gtest.h>

#include "Fault.h"
#include "GuardPort.h"
#include "TestTerminal.h"

TEST(GuardPortFault, InterruptedBeamOffIsSentAllTheSame)
{
    for (const char* const pPlan : {"open:1:EINTR", "write:1:EINTR"}) {
        TestTerminal terminal;
        const FaultScope fault(pPlan);

        EXPECT_TRUE(GuardPort::sendOff(terminal.path())) << pPlan;

        EXPECT_EQ(1U, faultHits()) << pPlan;
        ASSERT_TRUE(terminal.wait()) << pPlan;
        EXPECT_EQ("\x18", terminal.read()) << pPlan;
    }
}
