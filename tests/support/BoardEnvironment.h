// A test program with this header's environment runs in the virtual board's private /dev.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "BoardNamespace.h"

/**
 * Add it with testing::AddGlobalTestEnvironment, in one file of the program: the namespace is
 * entered before the first test, and all tests fail where that is refused. Listing the tests needs
 * no rights.
 */
class BoardEnvironment : public testing::Environment
{
public:
    void SetUp() override
    {
        std::string strError;
        if (!enterBoardNamespace(strError)) {
            FAIL() << strError;
        }
    }
};
