// The documented dialogues: they can be played, and they are what the service really says.
#include "Transcript.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

#include <unistd.h>

#include <gtest/gtest.h>

#include "EventBus.h"
#include "Eventually.h"
#include "Log.h"
#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "PrintService.h"
#include "ScratchFolder.h"
#include "UART.h"
#include "VirtualController.h"

namespace {

class FreshPrintService : public PrintService
{
};

std::vector<Transcript> documented()
{
    std::ifstream file(KESTREL_DOCS "/serial.md");
    return Transcript::parse(std::string{std::istreambuf_iterator<char>(file), {}});
}

std::string documented(const std::string& strName)
{
    for (const Transcript& transcript : documented()) {
        if (strName == transcript.getName()) {
            return transcript.toText();
        }
    }
    return "no dialogue " + strName;
}

/** What has crossed the wire, as a dialogue. */
std::string heard(VirtualController& controller)
{
    Transcript transcript;
    for (const VirtualController::Record& record : controller.readJournal()) {
        if ("rx" == record.strKind) {
            transcript.add(true, record.strText);
        } else if ("tx" == record.strKind) {
            std::istringstream stream(record.strText);
            for (std::string strLine; std::getline(stream, strLine);) {
                transcript.add(false, strLine);
            }
        }
    }
    return transcript.toText();
}

class TranscriptPlayed : public testing::Test
{
protected:
    void SetUp() override
    {
        Log::getInstance().setSinks(0);
        ASSERT_EQ(0, chdir(m_folder.path().c_str()));
        ASSERT_EQ(1, m_uart.open(m_controller.getNode()));
        ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));
    }

    void TearDown() override
    {
        m_uart.close();
        EXPECT_EQ(0, chdir("/"));
    }

    /** Play a dialogue; "" when all answers came as written, else the trouble. */
    std::string play(const std::string& strText, int32_t s32Seconds = 30)
    {
        std::string strTrouble;
        const bool bHeld = Transcript::parse(strText).at(0).play(m_uart, s32Seconds, strTrouble);
        EXPECT_EQ(bHeld, strTrouble.empty());
        return strTrouble;
    }

    ScratchFolder m_folder;
    VirtualController m_controller{{"--speed-up", "1000"}};
    UART m_uart;
};

/** The same with a service on the port. */
class TranscriptSpoken : public TranscriptPlayed
{
protected:
    void SetUp() override
    {
        TranscriptPlayed::SetUp();
        m_pService = std::make_unique<FreshPrintService>();
        m_pService->setUart(&m_uart);
    }

    void TearDown() override
    {
        m_pService.reset(); // its thread uses the port
        TranscriptPlayed::TearDown();
    }

    void runJob(const std::string& strJob)
    {
        EXPECT_EQ(0, m_pService->saveGcode(strJob.data(), static_cast<int>(strJob.size())));
        EXPECT_EQ(0, m_pService->startPrint());
    }

    std::unique_ptr<FreshPrintService> m_pService;
};

} // namespace

TEST(Transcript, BlocksAreNamedByTheirHeadings)
{
    const std::vector<Transcript> vecTranscript = Transcript::parse("# One\n> not inside\n"
                                                                    "```transcript\n"
                                                                    "> a \n"
                                                                    "remark\n"
                                                                    ">\n"
                                                                    "< ok\n"
                                                                    "```\n"
                                                                    "## Two more\n"
                                                                    "```transcript\n"
                                                                    "< b\n"
                                                                    "```\n");

    ASSERT_EQ(2U, vecTranscript.size());
    EXPECT_EQ("One", vecTranscript[0].getName());
    EXPECT_EQ("> a \n>\n< ok\n", vecTranscript[0].toText());
    EXPECT_EQ("Two more", vecTranscript[1].getName());
    EXPECT_EQ("< b\n", vecTranscript[1].toText());
}

TEST(Transcript, TextWithoutBlocksIsOneDialogue)
{
    const std::vector<Transcript> vecTranscript =
        Transcript::parse("# remark\n> $H\n< ok\n< done\n");

    ASSERT_EQ(1U, vecTranscript.size());
    EXPECT_EQ("> $H\n< ok\n< done\n", vecTranscript[0].toText());
}

TEST_F(TranscriptPlayed, EveryDocumentedDialogueCanBePlayed)
{
    const std::vector<Transcript> vecTranscript = documented();
    EXPECT_EQ(6U, vecTranscript.size());
    for (const Transcript& transcript : vecTranscript) {
        std::string strTrouble;
        EXPECT_TRUE(transcript.play(m_uart, 30, strTrouble))
            << transcript.getName() << ": " << strTrouble;
    }
}

TEST_F(TranscriptPlayed, OtherAnswerIsTold)
{
    EXPECT_EQ("expected: ok\ncame: error:1", play("> G77\n< ok\n"));
}

TEST_F(TranscriptPlayed, MissingAnswerIsTold)
{
    m_controller.command("half");

    EXPECT_EQ("expected: ok\nonly came: o", play("> M5\n< ok\n", 5));
}

TEST_F(TranscriptPlayed, DeadPortIsTold)
{
    m_controller.command("unplug");

    EXPECT_EQ("not sent: M5", play("> M5\n< ok\n"));
}

TEST_F(TranscriptSpoken, Move)
{
    MoveLaserEvent event(12.5F, -3);
    EventBus<MoveLaserEvent>::publish(event);

    EXPECT_EQ(documented("Move"), heard(m_controller));
}

TEST_F(TranscriptSpoken, Height)
{
    MeasureEvent event(0.25F);
    EventBus<MeasureEvent>::publish(event);

    EXPECT_EQ(documented("Height"), heard(m_controller));
}

TEST_F(TranscriptSpoken, Job)
{
    runJob("G1 X1 F6000\nG1 X2\nG1 X0\n");

    EXPECT_TRUE(eventually([this] { return documented("Job") == heard(m_controller); }))
        << heard(m_controller);
}

TEST_F(TranscriptSpoken, LaserOff)
{
    EXPECT_EQ(0, m_pService->pausePrint());

    EXPECT_EQ(documented("Laser off"), heard(m_controller));
}

TEST_F(TranscriptSpoken, RefusedLine)
{
    runJob("G1 X\n");

    const std::string strDialogue = documented("Refused line");
    EXPECT_TRUE(eventually([&] { return heard(m_controller).size() >= strDialogue.size(); }));
    EXPECT_EQ(0, m_pService->stopPrint());
    EXPECT_EQ(0U, heard(m_controller).find(strDialogue)) << heard(m_controller);
}

TEST_F(TranscriptSpoken, Resume)
{
    EXPECT_EQ(0, m_pService->saveGcode("", 0));
    unlink("tmp.gcode");
    m_controller.command("say status:3\\n");

    m_pService->pollStatus();

    EXPECT_EQ("< status:3\n" + documented("Resume"), heard(m_controller));
}
