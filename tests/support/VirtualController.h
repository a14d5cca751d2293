// Runs a kestrel-controller for a test and talks to it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "ControlClient.h"

/**
 * Starts the program in a scratch folder and ends it with the object, or with the test's process.
 * Trouble with the program itself throws std::runtime_error.
 *
 * The environment variable KESTREL_CONTROLLER may name another binary.
 */
class VirtualController
{
public:
    /** One line of the journal. */
    struct Record
    {
        double dSeconds;
        std::string strKind;
        std::string strText; // unescaped
    };

    /** @param vecOption  further options; "--node" replaces the node in the scratch folder */
    explicit VirtualController(const std::vector<std::string>& vecOption = {});
    VirtualController(const VirtualController&) = delete;
    VirtualController& operator=(const VirtualController&) = delete;
    ~VirtualController();

    const std::string& getFolder() const
    {
        return m_strFolder;
    }
    const std::string& getNode() const
    {
        return m_strNode;
    }
    std::string getImagePath() const
    {
        return m_strFolder + "/image";
    }
    std::string getScenePath() const
    {
        return m_strFolder + "/scene";
    }

    /**
     * Carry out a command; everything written to the wire before is taken first.
     * @return the answer, without its line end
     */
    std::string command(const std::string& strCommand);

    /** A field of the answer to "state", e.g. "x". */
    double getState(const std::string& strField);

    /** The whole journal so far. */
    std::vector<Record> readJournal();

    /** The texts of one kind, e.g. the lines received ("rx"). */
    std::vector<std::string> readTexts(const std::string& strKind);

    /** All bytes received, but for those that act as they come and firmware images. */
    std::string readReceivedBytes();

    /** Wait until a condition holds, looking every few milliseconds; false after 30 seconds. */
    static bool waitUntil(const std::function<bool()>& condition);

private:
    void start(const std::vector<std::string>& vecOption);
    void end();

    std::string m_strFolder;
    std::string m_strNode;
    pid_t m_nPid = -1;
    ControlClient m_control;
};
