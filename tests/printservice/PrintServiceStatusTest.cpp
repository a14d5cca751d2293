// Commands on the wire, and what the controller's status, error and alarm codes bring about.
#include "IdlePrintEvent.h"
#include "PrintTest.h"

namespace {

/** Looks at the idle event as the vision host does, and fills it. */
class IdleSubscriber
{
public:
    IdleSubscriber()
    {
        EventBus<IdlePrintEvent>::subscribe(this, &IdleSubscriber::onIdlePrint);
    }
    IdleSubscriber(const IdleSubscriber&) = delete;
    IdleSubscriber& operator=(const IdleSubscriber&) = delete;
    ~IdleSubscriber()
    {
        EventBus<IdlePrintEvent>::unsubscribe(this, &IdleSubscriber::onIdlePrint);
    }

    int onIdlePrint(Event* pEvent)
    {
        const auto& event = dynamic_cast<IdlePrintEvent&>(*pEvent);
        ++m_nCalls;
        m_bFresh = event.m_pValues->empty() && 0 == *event.m_pArg1 && 0 == *event.m_pArg2;
        event.m_pValues->push_back(7);
        *event.m_pArg1 = 1;
        *event.m_pArg2 = 2;
        return 0;
    }

    int m_nCalls = 0;
    bool m_bFresh = false;
};

class PrintServiceStatus : public PrintTest
{
protected:
    /** Let the idle service see a status. */
    void poll(int nCode)
    {
        m_controller.command("say status:" + std::to_string(nCode) + "\\n");
        service().pollStatus();
    }

    /** When a line came, in seconds. */
    std::vector<double> timesOf(const std::string& strLine)
    {
        std::vector<double> vecTime;
        for (const VirtualController::Record& record : m_controller.readJournal()) {
            if ("rx" == record.strKind && strLine == record.strText) {
                vecTime.push_back(record.dSeconds);
            }
        }
        return vecTime;
    }

    std::string lastCode() const
    {
        const Texts vecCode = m_reports.codes();
        return vecCode.empty() ? std::string() : vecCode.back();
    }

    StatusReports m_reports;
};

} // namespace

TEST_F(PrintServiceStatus, CommandsGoOutAsTheCodecSays)
{
    EXPECT_EQ(0, service().printSingleCmd("M5", 1)); // the length is not looked at

    EXPECT_EQ("M5\n", m_controller.readReceivedBytes());
    EXPECT_EQ("M5\n\nsend length:3\n", output());
}

TEST_F(PrintServiceStatus, ErrorLockIsClearedForTwoAndNineOnly)
{
    for (const int nCode : {0, 1, 3, 4, 5, 6, 7, 8, 10, 11, -1}) {
        service().onErrorCode(nCode);
    }
    EXPECT_EQ("", m_controller.readReceivedBytes());

    service().onErrorCode(9);
    EXPECT_EQ("$X\n", m_controller.readReceivedBytes());
    service().onErrorCode(2);
    EXPECT_EQ("$X\n$X\n", m_controller.readReceivedBytes());
}

TEST_F(PrintServiceStatus, IdleStatusOneAndTwoAreReported)
{
    poll(1);
    poll(2);

    EXPECT_EQ((Texts{"Wx01", "Wx02"}), m_reports.codes());
    EXPECT_EQ(PRINT_STATE_IDLE, service().getState());
    EXPECT_EQ("get status code:1 \nget status code:2 \n", output());
}

TEST_F(PrintServiceStatus, IdleStatusThreeAsksTheSubscribersWhenNoFileWaits)
{
    IdleSubscriber subscriber;

    poll(3);

    EXPECT_EQ(1, subscriber.m_nCalls);
    EXPECT_TRUE(subscriber.m_bFresh);
    EXPECT_EQ((Texts{"Wx03"}), m_reports.codes());
    EXPECT_EQ("", m_controller.readReceivedBytes());
    EXPECT_EQ("get status code:3 \n", output());
}

TEST_F(PrintServiceStatus, IdleStatusThreeStartsTheJobThatWaits)
{
    IdleSubscriber subscriber;
    saveJob("G1 X1\n");

    poll(3);

    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));
    EXPECT_TRUE(
        eventually([this] { return "~\nG1 X1\n\n\n" == m_controller.readReceivedBytes(); }));
    EXPECT_EQ((Texts{"Wx03"}), m_reports.codes());
    EXPECT_EQ(0, subscriber.m_nCalls);
    EXPECT_TRUE(contains(output(), "get status code:3 \n"));
}

TEST_F(PrintServiceStatus, IdleStatusThreeWithoutItsFileOnlyResumes)
{
    saveJob("G1 X1\n");
    unlink("tmp.gcode");

    poll(3);

    EXPECT_EQ("~\n", m_controller.readReceivedBytes());
    EXPECT_EQ(Texts(), m_reports.codes());
    EXPECT_EQ(PRINT_STATE_FILE_READY, service().getState());
    EXPECT_TRUE(contains(output(), "get status code:3 \n"));
}

TEST_F(PrintServiceStatus, IdleStatusFourPauses)
{
    poll(4);

    EXPECT_EQ("M5\n", m_controller.readReceivedBytes());
    EXPECT_EQ(PRINT_STATE_PAUSED, service().getState());
    EXPECT_EQ((Texts{"Wx04"}), m_reports.codes());
    EXPECT_TRUE(contains(output(), "get status code:4 \n"));
}

TEST_F(PrintServiceStatus, OtherIdleStatusIsOnlyPrinted)
{
    poll(5);

    EXPECT_EQ(Texts(), m_reports.codes());
    EXPECT_EQ("get status code:5 \n", output());
}

TEST_F(PrintServiceStatus, IdlePollWithoutAStatusDoesNothing)
{
    m_controller.command("say ok\\n");

    service().pollStatus();

    EXPECT_EQ(Texts(), m_reports.codes());
    EXPECT_EQ("", output());
}

TEST_F(PrintServiceStatus, LoopWithoutAJobPolls)
{
    m_controller.command("say status:2\\n");

    EXPECT_EQ(0, service().printLoop());

    EXPECT_EQ((Texts{"Wx02"}), m_reports.codes());
}

TEST_F(PrintServiceStatus, ThreadDoesNotRunBeforeAJobStarts)
{
    m_controller.command("say status:2\\n");
    char acReply[16] = {0};
    service().readUart(acReply, 15, 5, 0); // whoever reads first has it

    EXPECT_STREQ("status:2\n", acReply);
    EXPECT_EQ(Texts(), m_reports.codes());
}

TEST_F(PrintServiceStatus, PausedLineIsRepeatedUntilTheControllerGoesOn)
{
    m_controller.command("line 2 status 1"); // taken, yet paused
    m_controller.command("line 4 status 4");

    runJob("G1 X1\nG1 X2\nG1 X3\n");

    EXPECT_TRUE(eventually([this] {
        return "G1 X1\n\nG1 X2\n\nG1 X2\n\nG1 X2\n\nG1 X3\n\n\n" ==
               m_controller.readReceivedBytes();
    }));
    EXPECT_EQ((Texts{"Wx01", "Wx04"}), m_reports.codes());
    const std::string strOutput = output();
    EXPECT_TRUE(contains(strOutput, "get status code:1 \n"));
    EXPECT_TRUE(contains(strOutput, "get status code:4 \n"));
}

TEST_F(PrintServiceStatus, ControllerThatHoldsGetsTheLineAgainEveryHalfSecond)
{
    m_controller.command("line 2 hold");
    m_controller.command("line 4 go");

    runJob("G1 X1\nG1 X2\nG1 X3\n");

    EXPECT_TRUE(eventually([this] {
        return "G1 X1\n\nG1 X2\n\nG1 X2\n\nG1 X2\n\nG1 X3\n\n\n" ==
               m_controller.readReceivedBytes();
    }));
    EXPECT_EQ((Texts{"Wx01", "Wx01", "Wx04"}), m_reports.codes());
    const std::vector<double> vecTime = timesOf("G1 X2");
    ASSERT_EQ(3U, vecTime.size());
    EXPECT_LE(0.499, vecTime[1] - vecTime[0]);
    EXPECT_LE(0.499, vecTime[2] - vecTime[1]);
}

TEST_F(PrintServiceStatus, DeliberateLineThatWasTakenIsRepeatedEveryHalfSecondWhilePaused)
{
    m_controller.command("line 2 status 3");
    saveJob("G91\nG1 X0.1 F600000\nG1 X1\n");
    EXPECT_EQ(0, service().startPrint());

    EXPECT_TRUE(eventually([this] { return timesOf("G1 X0.1 F600000").size() >= 4; }));

    EXPECT_EQ(0, service().pausePrint());
    const std::vector<double> vecTime = timesOf("G1 X0.1 F600000");
    for (size_t i = 1; i < vecTime.size(); ++i) {
        EXPECT_LE(0.499, vecTime[i] - vecTime[i - 1]) << i;
    }
}

TEST_F(PrintServiceStatus, AnswerToTheLastEmptyLineIsReportedAndChangesNoState)
{
    const LogCapture log;
    int nLine = 2; // the empty line of the first job
    int nParked = 0;
    for (const std::string strCode : {"1", "3", "4"}) {
        m_controller.command("line " + std::to_string(nLine) + " status " + strCode);
        runJob("G1 X1\n");
        nLine += 2;
        EXPECT_TRUE(eventually([&] { return "Wx0" + strCode == lastCode(); }));
        ++nParked; // the line of its start may come behind it
        EXPECT_TRUE(eventually([&] {
            const auto lines = log.lines();
            return nParked == std::count_if(lines.begin(), lines.end(), [](const std::string& str) {
                       return contains(str, "stop thread by myself");
                   });
        }));
        EXPECT_EQ(PRINT_STATE_STOPPED, service().getState()) << strCode;
        char acRest[64] = {0};
        service().readUart(acRest, 64, 0, 100000); // the answer may have come in two pieces
    }

    EXPECT_EQ(1, service().startPrint()); // as without a job before
    const std::string strOutput = output();
    EXPECT_TRUE(contains(strOutput, "get status code:1 \n"));
    EXPECT_TRUE(contains(strOutput, "get status code:3 \n"));
    EXPECT_TRUE(contains(strOutput, "get status code:4 \n"));
}

TEST_F(PrintServiceStatus, StatusTwoWhilePrintingIsOnlyReported)
{
    m_controller.command("line 1 status 2");

    runJob("G1 X1\nG1 X2\n");

    EXPECT_TRUE(
        eventually([this] { return "G1 X1\n\nG1 X2\n\n\n" == m_controller.readReceivedBytes(); }));
    EXPECT_EQ((Texts{"Wx02"}), m_reports.codes());
}

TEST_F(PrintServiceStatus, StatusThreeWhilePrintingPauses)
{
    IdleSubscriber subscriber;
    m_controller.command("line 1 status 3");
    m_controller.command("line 2 status 4");

    runJob("G1 X1\nG1 X2\n");

    EXPECT_TRUE(eventually(
        [this] { return "G1 X1\n\nG1 X1\n\nG1 X2\n\n\n" == m_controller.readReceivedBytes(); }));
    EXPECT_EQ((Texts{"Wx03", "Wx04"}), m_reports.codes());
    EXPECT_EQ(0, subscriber.m_nCalls);
}

TEST_F(PrintServiceStatus, OtherStatusWhilePrintingIsOnlyPrinted)
{
    m_controller.command("line 1 status 7");

    runJob("G1 X1\nG1 X2\n");

    EXPECT_TRUE(
        eventually([this] { return "G1 X1\n\nG1 X2\n\n\n" == m_controller.readReceivedBytes(); }));
    EXPECT_EQ(Texts(), m_reports.codes());
    EXPECT_TRUE(contains(output(), "get status code:7 \n"));
}

TEST_F(PrintServiceStatus, PausedByTheControllerAndContinuedByTheOperator)
{
    m_controller.command("line 1 status 1");
    saveJob("G1 X1\nG1 X2\n");
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(waitForState(PRINT_STATE_PAUSED));

    EXPECT_EQ(0, service().startPrint());

    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));
    EXPECT_TRUE(
        eventually([this] { return contains(m_controller.readReceivedBytes(), "G1 X2\n\n\n"); }));
}

TEST_F(PrintServiceStatus, RefusedLineIsSentAgainAfterHalfASecond)
{
    m_controller.command("line 2 refuse 5");

    runJob("G1 X1\nG1 X2\nG1 X3\n");

    EXPECT_TRUE(eventually([this] {
        return "G1 X1\n\nG1 X2\n\nG1 X2\n\nG1 X3\n\n\n" == m_controller.readReceivedBytes();
    }));
    EXPECT_TRUE(contains(output(), "get error code:5 \n"));
}

TEST_F(PrintServiceStatus, LockedControllerIsUnlockedAndGetsTheLineAgain)
{
    m_controller.command("line 2 refuse 9");

    runJob("G1 X1\nG1 X2\n");

    EXPECT_TRUE(eventually([this] {
        return "G1 X1\n\nG1 X2\n\n$X\nG1 X2\n\n\n" == m_controller.readReceivedBytes();
    }));
    EXPECT_TRUE(contains(output(), "get error code:9 \n"));
}

TEST_F(PrintServiceStatus, AlarmIsOnlyPrintedAndTheLockBehindItCleared)
{
    m_controller.command("line 1 alarm 3");

    runJob("G1 X1\n");

    EXPECT_TRUE(eventually([this] {
        return "G1 X1\n\nG1 X1\n\n$X\nG1 X1\n\n\n" == m_controller.readReceivedBytes();
    }));
    const std::string strOutput = output();
    EXPECT_TRUE(contains(strOutput, "get alarm code:3 \n"));
    EXPECT_TRUE(contains(strOutput, "get error code:9 \n"));
}

TEST_F(PrintServiceStatus, HalfAnAnswerAndGarbageAreNoAcknowledgement)
{
    m_controller.command("line 1 half");
    m_controller.command("line 3 garbage");

    runJob("G1 X1\nG1 X2\n");

    EXPECT_TRUE(eventually([this] {
        return "G1 X1\n\nG1 X1\n\nG1 X2\n\nG1 X2\n\n\n" == m_controller.readReceivedBytes();
    }));
}

TEST_F(PrintServiceStatus, LateAnswerIsWaitedFor)
{
    m_controller.command("line 1 late 1200");

    runJob("G1 X1\nG1 X2\n");

    EXPECT_TRUE(
        eventually([this] { return "G1 X1\n\nG1 X2\n\n\n" == m_controller.readReceivedBytes(); }));
}

TEST_F(PrintServiceStatus, SilenceIsNoAcknowledgementForThisController)
{
    m_controller.command("line 1 no-answer");

    saveJob("G1 X1\n");
    const uint64_t u64Start = monotonicMs();
    EXPECT_EQ(0, service().startPrint());

    EXPECT_TRUE(
        eventually([this] { return "G1 X1\n\nG1 X1\n\n\n" == m_controller.readReceivedBytes(); }));
    EXPECT_LE(10499U, monotonicMs() - u64Start); // ten seconds for the reply, then half a second
}

TEST_F(PrintServiceStatus, DoubledAnswerLeavesOneForTheNextLine)
{
    m_controller.command("line 1 double");

    runJob("G1 X1\nG1 X2\nG1 X3\n");

    EXPECT_TRUE(eventually(
        [this] { return "G1 X1\n\nG1 X2\n\nG1 X3\n\n\n" == m_controller.readReceivedBytes(); }));
}
