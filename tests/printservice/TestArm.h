// The arm that a print service is tested on: the virtual controller, or the guard in front of it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "VirtualController.h"

/**
 * The same tests run with either: a program links TestArm.cpp, where the service's port is the
 * controller's, or GuardedTestArm.cpp, where it is the guard's.
 *
 * What is "received" is what the service has sent; what an operator has to allow, one allows.
 */
class TestArm : public VirtualController
{
public:
    explicit TestArm(const std::vector<std::string>& vecOption);
    ~TestArm();

    /** What the service opens. */
    std::string getPort() const;

    /** @param nFd  the service's descriptor of that */
    void listenTo(int nFd);

    /** Of "line N ..." the lines are the service's. */
    std::string command(const std::string& strCommand);

    // What was received ("rx") and said ("tx") is what the service has written and read.
    std::vector<Record> readJournal();
    std::vector<std::string> readTexts(const std::string& strKind);
    std::string readReceivedBytes();

    /** The lines of jobs that the controller has got, without blanks; no M5. */
    std::vector<std::string> readJobLines();

    // The operator's doing, right before the service's own.
    /** @param bGoesOn  behind a pause, if there was a job */
    void allowJob(bool bGoesOn);
    void allowPause();
    void allowStop();

private:
    struct Guard;
    std::unique_ptr<Guard> m_pGuard;
};
