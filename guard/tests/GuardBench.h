// A running kestrel-guard between a virtual controller and a test.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

#include "ChildProgram.h"
#include "OperatorClient.h"
#include "ScratchFolder.h"
#include "VirtualController.h"

/**
 * Starts the guard's program on a virtual controller and plays service and operator. A guard that
 * does not come throws std::runtime_error with what it has said.
 */
class GuardBench
{
public:
    /**
     * @param bGrbl  language of both; else the arm's own
     * @param vecOption  further ones of the virtual controller
     * @param strController  further lines of the configuration's first table
     */
    explicit GuardBench(bool bGrbl, const std::vector<std::string>& vecOption = {},
                        const std::string& strController = "");
    GuardBench(const GuardBench&) = delete;
    GuardBench& operator=(const GuardBench&) = delete;
    ~GuardBench();

    OperatorClient& op()
    {
        return *m_pOperator;
    }
    VirtualController& controller()
    {
        return m_controller;
    }
    ChildProgram& guard()
    {
        return *m_pGuard;
    }
    std::string path(const std::string& strName) const
    {
        return (m_folder.path() / strName).string();
    }
    std::string configuration(bool bGrbl, const std::string& strController = "") const;

    /** The worker's process. */
    pid_t worker() const;

    // The service.
    void openService();
    void closeService();
    void send(const std::string& strBytes) const;
    /** What comes by the next read, 64 bytes at most. */
    std::string receive() const;
    /** Send a job's line and read its answer. */
    std::string run(const std::string& strLine)
    {
        send(strLine + "\n\n");
        return receive();
    }

    /** Level motion, homed. */
    bool home();

    /** @return the answer */
    std::string openJob(const std::string& strJob, int nLeaseMs = 10000);

    /** Homed, a long job open and its laser on; the service has been answered. */
    bool burn(int nLeaseMs = 10000);

    bool isBeamOn();
    bool waitForState(const std::string& strField);

    /** Seconds of the controller's log. */
    double now();

    /** Wait until the beam is off. @return the moment at which it went off, or -1 */
    double waitForDark();

private:
    double beam(const std::string& strField);

    VirtualController m_controller;
    ScratchFolder m_folder;
    std::unique_ptr<ChildProgram> m_pGuard;
    std::unique_ptr<OperatorClient> m_pOperator;
    int m_nService = -1;
};
