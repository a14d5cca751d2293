// The journal of the device's calls.
#include "CameraJournal.h"

#include <gtest/gtest.h>

#include "ScratchFolder.h"

TEST(CameraJournal, StartsOverWhenItIsFull)
{
    ScratchFolder folder;
    CameraJournal journal((folder.path() / "journal").string(), 100);
    for (int i = 0; i < 10; ++i) {
        journal.note("this line has forty characters, or so");
    }

    const std::string strText = folder.read("journal");

    EXPECT_LT(strText.size(), 300u);
    EXPECT_NE(std::string::npos, strText.find(" 0 0 # started over\n"));
    EXPECT_EQ('\n', strText.back());
}
