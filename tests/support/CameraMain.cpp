// The entry point of the test programs that use the virtual camera: starts itself again with the
// camera's library preloaded, so that such a program can also be run by hand or in a debugger.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

namespace {

const char* const STARTED_AGAIN = "KESTREL_TEST_PRELOADED";

/** The sanitizers' own libraries, which must come before any other preloaded one. */
std::set<std::string> sanitizerLibraries()
{
    std::set<std::string> setPath;
    std::ifstream maps("/proc/self/maps");
    for (std::string strLine; std::getline(maps, strLine);) {
        for (const char* pName : {"/libasan.so", "/libtsan.so", "/libubsan.so"}) {
            const size_t uPath = strLine.find('/');
            if (std::string::npos != uPath && std::string::npos != strLine.find(pName)) {
                setPath.insert(strLine.substr(uPath));
            }
        }
    }
    return setPath;
}

int startAgain(char** argv)
{
    std::string strPreload;
    for (const std::string& strPath : sanitizerLibraries()) {
        strPreload += strPath + ":";
    }
    strPreload += KESTREL_CAMERA_LIBRARY;
    setenv("LD_PRELOAD", strPreload.c_str(), 1);
    setenv(STARTED_AGAIN, "1", 1);
    setenv("GTEST_DEATH_TEST_USE_FORK", "1", 1); // an emulator may not know the clone(2) used else
    execv("/proc/self/exe", argv);
    perror("execv");
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (nullptr == getenv(STARTED_AGAIN)) {
        return startAgain(argv);
    }
    // Not for the commands that the tests run; a death test's child starts itself again as well.
    unsetenv(STARTED_AGAIN);
    unsetenv("LD_PRELOAD");
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    return RUN_ALL_TESTS();
}
