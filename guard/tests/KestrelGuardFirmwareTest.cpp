// Firmware from the operator's socket to the virtual controller.
#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "FileCopy.h"
#include "GuardBench.h"

namespace {

const size_t SIZE = 256U << 10;

/** With the magic and the length that the virtual controller ends an image by. */
std::string makeImage(size_t uSize)
{
    const size_t uLength = uSize - 8;
    std::string strImage = "KFW1";
    for (int nShift = 0; nShift < 32; nShift += 8) {
        strImage += static_cast<char>(uLength >> static_cast<unsigned>(nShift));
    }
    for (unsigned u = 1; strImage.size() < uSize; u = u * 1664525 + 1013904223) { // any bytes
        strImage += static_cast<char>(u >> 24U);
    }
    return strImage;
}

class KestrelGuardFirmware : public testing::Test
{
protected:
    explicit KestrelGuardFirmware(bool bGrbl = false) : m_bench(bGrbl)
    {
        EXPECT_TRUE(m_bench.waitForState("\"beam_seen_off\":true"));
        EXPECT_EQ("{\"ok\":true}", m_bench.op().ask("{\"do\":\"events\"}"));
        m_pOther = std::make_unique<OperatorClient>(m_bench.path("socket"));
    }

    /** Ask for it; size and sum are the image's unless told otherwise. @return the answer */
    std::string send(const std::string& strImage, int64_t s64Size = -1, std::string strSum = "")
    {
        m_folder.write("image", strImage);
        const int nFd = openImage();
        std::string strError;
        FileCopy copy;
        EXPECT_TRUE(copy.begin(openImage(), strError));
        while (FileCopy::STEP_MORE == copy.step(strError)) {
        }
        strSum = strSum.empty() ? copy.getSum() : strSum;
        std::string strAnswer;
        (void)eventually([&] { // what is asked at the start may not be answered yet
            strAnswer = m_pOther->ask("{\"do\":\"firmware\",\"size\":" +
                                          std::to_string((s64Size < 0)
                                                             ? static_cast<int64_t>(strImage.size())
                                                             : s64Size) +
                                          ",\"sha256\":\"" + strSum + "\"}",
                                      nFd);
            return std::string::npos == strAnswer.find("under way");
        });
        close(nFd);
        return strAnswer;
    }
    int openImage() const
    {
        return open((m_folder.path() / "image").c_str(), O_RDONLY | O_CLOEXEC);
    }
    std::string takenImage()
    {
        std::ifstream file(m_bench.controller().getImagePath(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    bool wasAnnounced()
    {
        const auto vecLine = m_bench.controller().readTexts("rx");
        return vecLine.end() != std::find(vecLine.begin(), vecLine.end(), "M21");
    }
    /** Read events up to this one. */
    bool waitForEvent(const std::string& strEvent)
    {
        std::string strLine;
        while (!(strLine = m_bench.op().readLine()).empty()) {
            if (strEvent == strLine) {
                return true;
            }
        }
        return false;
    }

    GuardBench m_bench;
    ScratchFolder m_folder;
    std::unique_ptr<OperatorClient> m_pOther;
};

class KestrelGuardFirmwareGrbl : public KestrelGuardFirmware
{
protected:
    KestrelGuardFirmwareGrbl() : KestrelGuardFirmware(true) {}
};

} // namespace

TEST_F(KestrelGuardFirmware, WholeImageArrivesAndItsSizeIsTold)
{
    const std::string strImage = makeImage(SIZE);

    const std::string strAnswer = send(strImage);

    EXPECT_NE(std::string::npos, strAnswer.find("\"ok\":true")) << strAnswer;
    EXPECT_NE(std::string::npos, strAnswer.find("\"size\":262144")) << strAnswer;
    EXPECT_TRUE(waitForEvent("{\"event\":\"firmware taken\",\"detail\":262144}"));
    EXPECT_TRUE(m_bench.waitForState("\"beam_seen_off\":true"));
    EXPECT_TRUE(strImage == takenImage());
    EXPECT_EQ(std::vector<std::string>{"262144 bytes complete"},
              m_bench.controller().readTexts("image"));
    EXPECT_FALSE(m_bench.isBeamOn());
}

TEST_F(KestrelGuardFirmware, ImageWithoutALengthArrivesWithoutAByteMore)
{
    const std::string strImage = "raw" + makeImage(100001);

    EXPECT_NE(std::string::npos, send(strImage).find("\"ok\":true"));

    EXPECT_TRUE(waitForEvent("{\"event\":\"firmware taken\",\"detail\":100004}"));
    EXPECT_TRUE(m_bench.waitForState("\"beam_seen_off\":true"));
    EXPECT_TRUE(strImage == takenImage());
}

TEST_F(KestrelGuardFirmware, SlowControllerSetsThePaceAndTheServiceIsRefusedMeanwhile)
{
    m_bench.openService();
    ASSERT_EQ("ok",
              m_bench.controller().command(
                  "line " +
                  std::to_string(static_cast<int>(m_bench.controller().getState("lines")) + 1) +
                  " stall"));
    const std::string strImage = makeImage(SIZE);
    ASSERT_NE(std::string::npos, send(strImage).find("\"ok\":true"));
    ASSERT_TRUE(eventually([this] { return 1 == m_bench.controller().getState("loading"); }));

    m_bench.send("G1 X1 F100\n\n");
    EXPECT_EQ("error:20\n", m_bench.receive());
    m_bench.send("M5\n");
    EXPECT_EQ("ok\n", m_bench.receive());
    m_bench.send("M21\n");
    EXPECT_EQ("error:21\n", m_bench.receive());
    EXPECT_NE(std::string::npos, m_pOther->ask("{\"do\":\"motion\"}").find("under way"));
    EXPECT_EQ(std::string::npos, m_pOther->ask("{\"do\":\"state\"}").find("\"firmware\":null"));
    ASSERT_EQ("ok", m_bench.controller().command("unstall"));

    EXPECT_TRUE(waitForEvent("{\"event\":\"firmware taken\",\"detail\":262144}"));
    EXPECT_TRUE(m_bench.waitForState("\"firmware\":null"));
    EXPECT_TRUE(strImage == takenImage());
}

TEST_F(KestrelGuardFirmware, WrongSizeOrSumIsRefusedBeforeAnythingIsSent)
{
    const std::string strImage = makeImage(1000);

    EXPECT_NE(std::string::npos, send(strImage, 1001).find("the file has 1000 bytes"));
    EXPECT_NE(std::string::npos,
              send(strImage, -1, std::string(64, '0')).find("the file's SHA-256 is "));
    EXPECT_NE(std::string::npos, m_pOther->ask("{\"do\":\"firmware\",\"size\":1000}")
                                     .find("firmware comes with size and sha256"));
    EXPECT_NE(std::string::npos,
              m_pOther->ask("{\"do\":\"firmware\",\"size\":-1,\"sha256\":\"00\"}")
                  .find("firmware comes with size and sha256"));
    EXPECT_FALSE(wasAnnounced());
}

TEST_F(KestrelGuardFirmware, AnotherLevelIsRefusedBeforeAnythingIsSent)
{
    ASSERT_TRUE(
        eventually([this] { return "{\"ok\":true}" == m_pOther->ask("{\"do\":\"motion\"}"); }));

    EXPECT_NE(std::string::npos, send(makeImage(1000)).find("not at this level"));
    EXPECT_FALSE(wasAnnounced());
}

TEST_F(KestrelGuardFirmware, BeamOffEndsItAndIsSeen)
{
    ASSERT_EQ("ok",
              m_bench.controller().command(
                  "line " +
                  std::to_string(static_cast<int>(m_bench.controller().getState("lines")) + 1) +
                  " stall"));
    ASSERT_NE(std::string::npos, send(makeImage(SIZE)).find("\"ok\":true"));
    ASSERT_TRUE(eventually([this] { return 1 == m_bench.controller().getState("loading"); }));

    EXPECT_EQ("{\"ok\":true}", m_pOther->ask("{\"do\":\"off\"}"));
    ASSERT_EQ("ok", m_bench.controller().command("unstall"));

    EXPECT_TRUE(m_bench.waitForState("\"beam_seen_off\":true"));
    EXPECT_EQ(0, m_bench.controller().getState("loading"));
}

TEST_F(KestrelGuardFirmwareGrbl, IsNotSupportedAndNothingIsSent)
{
    EXPECT_EQ("{\"error\":\"not supported\",\"ok\":false}", send(makeImage(1000)));

    for (const std::string& strLine : m_bench.controller().readTexts("rx")) {
        EXPECT_TRUE("$$" == strLine || "$#" == strLine) << strLine; // the guard's own questions
    }
}
