// What the station tells, in lines for people.
#include "StateText.h"

#include <gtest/gtest.h>

TEST(StateText, RunningJobIsALineWithABar)
{
    const nlohmann::json job = {{"percent", 49.9},
                                {"line", 120},
                                {"lines", 1000},
                                {"status", "running"},
                                {"seconds_left", 125.4}};

    EXPECT_EQ("[##########----------]  49 %  line 120 of 1000  2:05 left", jobToLine(job));
}

TEST(StateText, HeldJobTellsByWhom)
{
    const nlohmann::json job = {{"percent", 0},        {"line", 0},
                                {"lines", 3},          {"status", "held"},
                                {"held_by", "camera"}, {"seconds_left", nullptr}};

    EXPECT_EQ("[--------------------]   0 %  line 0 of 3  held by the camera", jobToLine(job));
}

TEST(StateText, EndOfAJobTellsWhereItGoesOn)
{
    nlohmann::json job = {{"name", "a"}, {"result", "tripped"}, {"line", 7},
                          {"lines", 9},  {"reason", "lease"},   {"restart", nullptr}};

    EXPECT_EQ("a tripped at line 7 of 9: lease", endToText(job));
    job["restart"] = {{"line", 8}, {"unsure_from", 3}, {"reason", nullptr}};
    EXPECT_EQ("a tripped at line 7 of 9: lease; goes on with \"run --line 8\", "
              "but lines from 3 on may not have been carried out",
              endToText(job));
    job["restart"] = {{"line", nullptr}, {"unsure_from", nullptr}, {"reason", "G92"}};
    EXPECT_EQ("a tripped at line 7 of 9: lease", endToText(job));
}

TEST(StateText, BeamOfARunningJobIsNotSaidToBeOff)
{
    nlohmann::json state = {
        {"guard",
         {{"present", true}, {"level", "job"}, {"beam_seen_off", true}, {"paused", false}}}};

    EXPECT_EQ("level job, arm not known, beam may be on", stateToLine(state));
    state["guard"]["paused"] = true;
    EXPECT_EQ("level job, arm not known, beam off, paused", stateToLine(state));
    state["guard"]["level"] = "motion";
    EXPECT_EQ("level motion, arm not known, beam seen off", stateToLine(state));
}

TEST(StateText, StateWithoutAGuardIsToldSo)
{
    const nlohmann::json state = {
        {"camera", {{"present", false}, {"age_ms", nullptr}}},
        {"guard", {{"present", false}, {"level", nullptr}, {"homed", nullptr}}},
        {"vision", {{"present", false}}},
        {"job", nullptr},
        {"last_job", nullptr},
        {"missing", {{{"what", "guard"}, {"action", "Start the guard."}}}}};

    EXPECT_EQ("level       not known: no guard\n"
              "camera      no picture yet\n"
              "vision      no plug-in\n"
              "missing     guard: Start the guard.\n",
              stateToText(state));
    EXPECT_EQ("level not known: no guard, arm not known, beam not known", stateToLine(state));
}

TEST(StateText, AlarmIsToldWithWhatClearsIt)
{
    nlohmann::json state = {{"guard", {{"present", true}, {"alarm", true}}}};
    const std::string strLine =
        "alarm       it stopped the arm: \"kestrel-arm unlock\" clears the lock\n";

    EXPECT_NE(std::string::npos, stateToText(state).find(strLine)) << stateToText(state);
    state["guard"]["alarm"] = false;
    EXPECT_EQ(std::string::npos, stateToText(state).find("alarm"));
}

TEST(StateText, AnythingElseIsNoReasonToEnd)
{
    EXPECT_NE("", stateToText(nlohmann::json::parse("[1,2]")));
    EXPECT_NE("", stateToLine(nlohmann::json::parse("x", nullptr, false)));
    EXPECT_NE("", jobToLine(nlohmann::json::parse(R"({"percent":"x","line":null})")));
    EXPECT_NE("", entryToText({{"time", 7}}));
}

TEST(StateText, Seconds)
{
    EXPECT_EQ("0:00", secondsToText(-1));
    EXPECT_EQ("1:01", secondsToText(60.6));
    EXPECT_EQ("1:02:03", secondsToText(3723));
}
