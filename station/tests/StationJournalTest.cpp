// The station's journal: what it keeps, on disk too.
#include "StationJournal.h"

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "ScratchFolder.h"

TEST(StationJournal, EntriesAreNumberedAndGivenOutInOrder)
{
    const ScratchFolder folder;
    std::filesystem::current_path(folder.path());
    StationJournal journal;

    journal.add("operator", "first");
    journal.add("guard", "second");
    journal.add("station", "third");

    const auto vecEntry = journal.getBehind(1, 10);
    ASSERT_EQ(2U, vecEntry.size());
    EXPECT_EQ(2U, vecEntry[0].u64Id);
    EXPECT_EQ("guard", vecEntry[0].strSource);
    EXPECT_EQ("third", vecEntry[1].strText);
    ASSERT_EQ(1U, journal.getBehind(0, 1).size());
    EXPECT_EQ("third", journal.getBehind(0, 1)[0].strText);
    EXPECT_EQ(3U, journal.getLastId());
}

TEST(StationJournal, NextOneGoesOnWhereTheFileEnds)
{
    const ScratchFolder folder;
    std::filesystem::current_path(folder.path());
    {
        StationJournal journal;
        journal.add("station", "bytes \xFF \"and\" quotes");
        journal.add("station", "two");
    }
    std::ofstream("journal.jsonl", std::ios::app) << "{\"id\": 3, \"ti"; // the power went

    StationJournal journal;
    journal.add("station", "three");

    EXPECT_EQ(3U, journal.getLastId());
    EXPECT_EQ(3U, journal.getBehind(0, 10).size());
}

TEST(StationJournal, FullFileIsPutAside)
{
    const ScratchFolder folder;
    std::filesystem::current_path(folder.path());
    {
        StationJournal journal;
        for (int i = 0; i < 1200; ++i) {
            journal.add("station", std::string(2000, 'x'));
        }
        EXPECT_EQ(1000U, journal.getBehind(0, 5000).size());
        EXPECT_EQ(1000U, journal.getBehind(0, 1)[0].strText.size());
    }
    std::ifstream file("journal.jsonl", std::ios::ate);
    EXPECT_LT(file.tellg(), 1 << 20);
    std::ifstream former("journal.1.jsonl", std::ios::ate);
    EXPECT_LE(former.tellg(), 1 << 20);

    EXPECT_EQ(1200U, StationJournal().getLastId());
}
