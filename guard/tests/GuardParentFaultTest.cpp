// The process that watches the guard at work, where its own calls fail.
#include <csignal>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "Fault.h"
#include "GuardParent.h"
#include "TestTerminal.h"

namespace {

class GuardParentFault : public testing::TestWithParam<const char*>
{
protected:
    GuardParentFault()
    {
        sigprocmask(SIG_SETMASK, nullptr, &m_mask);
    }
    ~GuardParentFault() override
    {
        sigprocmask(SIG_SETMASK, &m_mask, nullptr);
    }

    sigset_t m_mask{};
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Calls, GuardParentFault,
                         testing::Values("fork:1:EAGAIN", "socketpair:1:EMFILE",
                                         "signalfd:1:ENOMEM", "poll:1:ENOMEM"));

TEST_P(GuardParentFault, BeamIsOffWhereNoWorkerCanBeStartedOrWatched)
{
    TestTerminal terminal;
    GuardParent parent(terminal.path(), "");
    int nStatus = 0;
    {
        const FaultScope fault(GetParam());

        nStatus = parent.run([](int) {
            for (;;) {
                pause(); // until it is killed
            }
            return 0;
        });
    }

    EXPECT_EQ(1, nStatus);
    ASSERT_TRUE(terminal.wait());
    EXPECT_EQ("\x18", terminal.read());
}
