// The arm that a print service is tested on: the virtual controller.
#include "TestArm.h"

#include <algorithm>

struct TestArm::Guard
{
};

TestArm::TestArm(const std::vector<std::string>& vecOption) : VirtualController(vecOption) {}

TestArm::~TestArm() = default;

std::string TestArm::getPort() const
{
    return getNode();
}

void TestArm::listenTo(int /*nFd*/) {}

std::string TestArm::command(const std::string& strCommand)
{
    return VirtualController::command(strCommand);
}

std::vector<VirtualController::Record> TestArm::readJournal()
{
    return VirtualController::readJournal();
}

std::vector<std::string> TestArm::readTexts(const std::string& strKind)
{
    return VirtualController::readTexts(strKind);
}

std::string TestArm::readReceivedBytes()
{
    return VirtualController::readReceivedBytes();
}

std::vector<std::string> TestArm::readJobLines()
{
    std::vector<std::string> vecLine;
    for (std::string strLine : readTexts("rx")) {
        strLine.erase(std::remove(strLine.begin(), strLine.end(), ' '), strLine.end());
        if (!strLine.empty() && "M5" != strLine) {
            vecLine.push_back(strLine);
        }
    }
    return vecLine;
}

void TestArm::allowJob(bool /*bGoesOn*/) {}

void TestArm::allowPause() {}

void TestArm::allowStop() {}
