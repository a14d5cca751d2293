// Moves on request of the vision side: what goes out, when, and what is logged.
#include <cmath>
#include <limits>
#include <typeinfo>

#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "PrintTest.h"
#include "Time.h"

namespace {

class PrintServiceMove : public PrintTest
{
protected:
    static void publishMove(float fX, float fY)
    {
        MoveLaserEvent event(fX, fY);
        EventBus<MoveLaserEvent>::publish(event);
    }

    static void publishMeasure(float fValue)
    {
        MeasureEvent event(fValue);
        EventBus<MeasureEvent>::publish(event);
    }
};

} // namespace

TEST_F(PrintServiceMove, DeliberateMoveHomesAndGoesToTheNegatedPosition)
{
    const LogCapture log;

    publishMove(12.5F, -3);

    EXPECT_EQ("$H\nG05 X-12.50 Y3.00 F2000 \nM18 S1\n", m_controller.readReceivedBytes());
    EXPECT_EQ("[debug] [printservice/PrintService ] [onMoveLaserEvent] "
              "move to (12.500000, -3.000000)\n",
              log.text());
    EXPECT_EQ("$H\n\nsend length:3\nG05 X-12.50 Y3.00 F2000 \nM18 S1\n\nsend length:32\n",
              output());
}

TEST_F(PrintServiceMove, MoveReturnsWhenTheArmIsThere)
{
    publishMove(12.5F, -3);

    EXPECT_EQ(-12.5, m_controller.getState("x"));
    EXPECT_EQ(3, m_controller.getState("y"));
    EXPECT_EQ(0, m_controller.getState("moving"));
    EXPECT_EQ((Texts{"ok\n", "done\n", "ok\n", "done\nok\n"}), m_controller.readTexts("tx"));
}

TEST_F(PrintServiceMove, MeasureGoesToTheNegatedHeight)
{
    const LogCapture log;

    publishMeasure(1.256F);

    EXPECT_EQ("G05 Z-1.26 F1000 \n", m_controller.readReceivedBytes());
    EXPECT_EQ(-1.26, m_controller.getState("z"));
    EXPECT_EQ("[debug] [printservice/PrintService ] [onMeasureEvent] move Z to (1.256000)\n",
              log.text());
}

TEST_F(PrintServiceMove, DeliberateZeroHeightIsNegativeZero)
{
    publishMeasure(0);

    EXPECT_EQ("G05 Z-0.00 F1000 \n", m_controller.readReceivedBytes());
}

TEST_F(PrintServiceMove, HandlersReturnMinusOne)
{
    MoveLaserEvent move(1, 1);
    MeasureEvent measure(1);

    EXPECT_EQ(-1, service().onMoveLaserEvent(&move));
    EXPECT_EQ(-1, service().onMeasureEvent(&measure));
}

TEST_F(PrintServiceMove, OtherEventsAreRefused)
{
    MoveLaserEvent move(1, 1);
    MeasureEvent measure(1);

    EXPECT_THROW(service().onMoveLaserEvent(&measure), std::bad_cast);
    EXPECT_THROW(service().onMeasureEvent(&move), std::bad_cast);
}

TEST_F(PrintServiceMove, AnyFloatFitsTheCommand)
{
    const float LARGE = 1e38F;
    const float NOTHING = std::numeric_limits<float>::quiet_NaN();
    char acExpected[256] = {0};
    snprintf(acExpected, sizeof(acExpected), "G05 X%.2f Y%.2f F2000 ", static_cast<double>(-LARGE),
             static_cast<double>(std::numeric_limits<float>::max()));
    ASSERT_LT(80U, std::string(acExpected).size());
    m_controller.command("say done\\n"); // a refused move has no second answer to wait for
    m_controller.command("line 2 say done\\n");
    m_controller.command("line 2 late 300"); // so that it is not read together with that

    publishMove(LARGE, -std::numeric_limits<float>::max());
    EXPECT_EQ(acExpected, received().at(1));

    m_controller.command("say done\\n");
    m_controller.command("line 4 late 300");
    publishMeasure(std::copysign(NOTHING, 1.0F));
    EXPECT_EQ("G05 Z-nan F1000 ", received().back());
}

TEST_F(PrintServiceMove, WithoutAPortNothingIsReadOrWaitedFor)
{
    const LogCapture log;
    service().setUart(nullptr);

    publishMove(1, 2);
    publishMeasure(3);

    EXPECT_EQ("", m_controller.readReceivedBytes());
    EXPECT_EQ("[debug] [printservice/PrintService ] [onMoveLaserEvent] "
              "move to (1.000000, 2.000000)\n"
              "[debug] [printservice/PrintService ] [onMeasureEvent] move Z to (3.000000)\n",
              log.text());
    EXPECT_EQ("", output());
}

TEST_F(PrintServiceMove, ControllerThatAnswersOnceOnlyCostsTheTimeOut)
{
    m_controller.command("once on");
    const uint64_t u64Start = monotonicMs();

    publishMeasure(1);

    EXPECT_LE(19999U, monotonicMs() - u64Start);
    EXPECT_EQ("G05 Z-1.00 F1000 \n", m_controller.readReceivedBytes());
}

TEST_F(PrintServiceMove, NothingMovesOnceTheServiceIsGone)
{
    m_pService.reset();

    publishMove(1, 2);
    publishMeasure(3);

    EXPECT_EQ("", m_controller.readReceivedBytes());
}
