// The controller's reset line, below a /sys/class of this program's own.
#include <cstdlib>
#include <set>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "BoardEnvironment.h"
#include "Descriptors.h"
#include "PrintTest.h"

namespace {

[[maybe_unused]] const testing::Environment* const ENVIRONMENT =
    testing::AddGlobalTestEnvironment(new BoardEnvironment);

class PrintServiceReset : public PrintTest
{
protected:
    PrintServiceReset() : PrintTest({"--gpio", "/sys/class/gpio", "--boot-ms", "100"}) {}

    /** The stores of one file, with their times. */
    std::vector<VirtualController::Record> stores(const std::string& strFile)
    {
        std::vector<VirtualController::Record> vecStore;
        for (const VirtualController::Record& record : m_controller.readJournal()) {
            if ("gpio" == record.strKind &&
                0 == record.strText.compare(0, strFile.size(), strFile)) {
                vecStore.push_back(record);
            }
        }
        return vecStore;
    }
};

} // namespace

TEST_F(PrintServiceReset, LineIsLowForHalfASecondAndHighAgain)
{
    const uint64_t u64Start = monotonicMs();

    EXPECT_EQ(0, service().resetStm32());

    EXPECT_LE(499U, monotonicMs() - u64Start);
    EXPECT_TRUE(eventually([this] { return 3 == stores("gpio106/value").size(); }));
    const auto vecValue = stores("gpio106/value");
    EXPECT_EQ("gpio106/value 1", vecValue[0].strText);
    EXPECT_EQ("gpio106/value 0", vecValue[1].strText);
    EXPECT_EQ("gpio106/value 1", vecValue[2].strText);
    ASSERT_EQ(1U, stores("export").size());
    EXPECT_EQ("export 106", stores("export")[0].strText);
    ASSERT_EQ(1U, stores("gpio106/direction").size());
    EXPECT_EQ("gpio106/direction out", stores("gpio106/direction")[0].strText);
    EXPECT_EQ("you are reset the STM32\n", output());
}

TEST_F(PrintServiceReset, ControllerIsAwayDuringTheResetAndBackAfterIt)
{
    EXPECT_EQ(0, service().resetStm32());

    EXPECT_TRUE(eventually([this] { return 2 == m_controller.readTexts("plugged").size(); }));
    EXPECT_EQ(1U, m_controller.readTexts("unplugged").size());
}

TEST_F(PrintServiceReset, ExportAloneDrivesTheLineLowThenHigh)
{
    service().exportResetGpio();

    // Low at once as an output: the controller is away, and boots.
    EXPECT_TRUE(eventually([this] { return 2 == m_controller.readTexts("plugged").size(); }));
    EXPECT_EQ((Texts{"export 106", "gpio106/direction out", "gpio106/value 1"}),
              m_controller.readTexts("gpio"));
    EXPECT_EQ(1U, m_controller.readTexts("unplugged").size());
}

TEST_F(PrintServiceReset, DeliberateDescriptorsStayOpen)
{
    const auto mapBefore = openDescriptors();

    EXPECT_EQ(0, service().resetStm32());

    const auto mapAfter = openDescriptors();
    EXPECT_EQ(mapBefore.size() + 4, mapAfter.size());
    for (const auto& [nFd, strTarget] : mapAfter) {
        if (0 == mapBefore.count(nFd)) {
            EXPECT_EQ(FD_CLOEXEC, fcntl(nFd, F_GETFD)) << nFd; // yet no command inherits them
        }
    }
    // Taken, or another test's controller finds them.
    EXPECT_TRUE(eventually([this] { return 3 == stores("gpio106/value").size(); }));
}

TEST_F(PrintServiceReset, DeliberateMissingPinFilesAreIgnored)
{
    ASSERT_EQ(0, rename("/sys/class/gpio", "/sys/class/away"));

    EXPECT_EQ(0, service().resetStm32());

    EXPECT_EQ("you are reset the STM32\n", output());
    EXPECT_TRUE(m_controller.readTexts("gpio").empty());
    ASSERT_EQ(0, rename("/sys/class/away", "/sys/class/gpio"));
}

TEST_F(PrintServiceReset, ValueIsWrittenWithItsZeroByte)
{
    service().exportResetGpio(); // makes the pin's files
    const int nHold = open("/sys/class/gpio/gpio106/plain", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(0, rename("/sys/class/gpio/gpio106/value", "/sys/class/gpio/gpio106/pipe"));
    ASSERT_EQ(0, rename("/sys/class/gpio/gpio106/plain", "/sys/class/gpio/gpio106/value"));

    service().exportResetGpio();

    char acBytes[4] = {9, 9, 9, 9};
    EXPECT_EQ(2, read(nHold, acBytes, sizeof(acBytes)));
    EXPECT_EQ('1', acBytes[0]);
    EXPECT_EQ('\0', acBytes[1]);
    close(nHold);
    ASSERT_EQ(0, rename("/sys/class/gpio/gpio106/pipe", "/sys/class/gpio/gpio106/value"));
}
