// The guard allocates nothing on a line's way.
#include <cstdint>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "GuardBench.h"

namespace {

/** Counts the allocations of both of the guard's processes, by a preloaded library. */
class AllocationCount
{
public:
    AllocationCount()
    {
        m_folder.write("count", std::string(4096, '\0'));
        const std::string strPath = (m_folder.path() / "count").string();
        const int nFd = open(strPath.c_str(), O_RDONLY | O_CLOEXEC);
        m_pCount = static_cast<const uint32_t*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, nFd, 0));
        close(nFd);
        // Rules that no run reaches only count.
        setenv("KESTREL_FAULT",
               "malloc:4294967295:ENOMEM;calloc:4294967295:ENOMEM;realloc:4294967295:ENOMEM;"
               "new:4294967295:ENOMEM",
               1);
        setenv("KESTREL_FAULT_PROGRAM", "kestrel-guard", 1);
        setenv("KESTREL_FAULT_REPORT", strPath.c_str(), 1);
        setenv("LD_PRELOAD", FAULT_PRELOAD, 1);
    }
    AllocationCount(const AllocationCount&) = delete;
    AllocationCount& operator=(const AllocationCount&) = delete;
    ~AllocationCount()
    {
        leaveOthersAlone();
        munmap(const_cast<uint32_t*>(m_pCount), 4096);
    }

    /** Programs started from now on are not counted. */
    static void leaveOthersAlone()
    {
        for (const char* const pName :
             {"KESTREL_FAULT", "KESTREL_FAULT_PROGRAM", "KESTREL_FAULT_REPORT", "LD_PRELOAD"}) {
            unsetenv(pName);
        }
    }
    uint32_t get() const
    {
        const volatile uint32_t* const pCount = m_pCount;
        return pCount[0] + pCount[2] + pCount[4] + pCount[6]; // a failure's count behind each
    }

private:
    ScratchFolder m_folder;
    const uint32_t* m_pCount;
};

class KestrelGuardMemory : public testing::TestWithParam<bool>
{
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Languages, KestrelGuardMemory, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& param) {
                             return param.param ? "Grbl" : "Kestrel";
                         });

TEST_P(KestrelGuardMemory, NothingIsAllocatedBetweenALineAndItsAnswerNorForATrip)
{
    const AllocationCount count;
    GuardBench bench(GetParam());
    AllocationCount::leaveOthersAlone();
    bench.openService();
    std::string strJob = "M3 S500\n";
    for (int n = 0; n < 60; ++n) {
        strJob += "G1 X-10 Y-5 F6000\nG1 X-9.5\n";
    }
    ASSERT_TRUE(bench.home());
    ASSERT_NE(std::string::npos, bench.openJob(strJob).find("\"ok\":true"));
    ASSERT_EQ("{\"ok\":true}", bench.op().ask("{\"do\":\"events\"}"));
    ASSERT_EQ("ok\n", bench.run("M3 S500"));
    const uint32_t u32Before = count.get();
    ASSERT_LT(100U, u32Before); // it does count

    for (int n = 0; n < 50; ++n) {
        ASSERT_EQ("ok\n", bench.run("G1 X-10 Y-5 F6000"));
        ASSERT_EQ("ok\n", bench.run("G1 X-9.5"));
    }
    EXPECT_EQ(u32Before, count.get());
    ASSERT_EQ("ok", bench.controller().command("refuse 20"));
    bench.send("G1 X-10 Y-5 F6000\n\n");
    EXPECT_EQ("error:26\n", bench.receive());
    std::string strEvent;
    do {
        strEvent = bench.op().readLine();
    } while (!strEvent.empty() && "{\"event\":\"beam seen off\"}" != strEvent);
    EXPECT_NE("", strEvent);

    EXPECT_EQ(u32Before, count.get());
}
