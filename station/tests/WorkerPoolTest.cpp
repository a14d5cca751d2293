// Pools of threads: how many tasks they take.
#include "WorkerPool.h"

#include <atomic>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "Time.h"

namespace {

/** Tasks that wait until they may end. */
struct Gate
{
    std::atomic<int> nBegun{0};
    std::atomic<bool> bOpen{false};

    void pass()
    {
        ++nBegun;
        while (!bOpen) {
            sleepFor(Time(0, 1000));
        }
    }
};

} // namespace

TEST(WorkerPool, TasksRunAtOnceUpToItsThreads)
{
    Gate gate;
    WorkerPool pool("test", 3, 0);
    const auto task = [&gate] { gate.pass(); };

    EXPECT_TRUE(pool.add(task));
    EXPECT_TRUE(pool.add(task));
    EXPECT_TRUE(pool.add(task));

    EXPECT_TRUE(eventually([&gate] { return 3 == gate.nBegun; }));
    EXPECT_FALSE(pool.add(task));
    gate.bOpen = true;
    EXPECT_TRUE(eventually([&] { return pool.add(task); }));
}

TEST(WorkerPool, TasksWaitAsManyAsMay)
{
    Gate gate;
    WorkerPool pool("test", 1, 2);
    const auto task = [&gate] { gate.pass(); };
    EXPECT_TRUE(pool.add(task));
    EXPECT_TRUE(eventually([&gate] { return 1 == gate.nBegun; }));

    EXPECT_TRUE(pool.add(task));
    EXPECT_TRUE(pool.add(task));
    EXPECT_FALSE(pool.add(task));

    gate.bOpen = true;
    EXPECT_TRUE(eventually([&gate] { return 3 == gate.nBegun; }));
}

TEST(WorkerPool, NothingBeginsOnceClosed)
{
    WorkerPool pool("test", 1, 2);

    pool.close();

    EXPECT_FALSE(pool.add([] { FAIL(); }));
}
