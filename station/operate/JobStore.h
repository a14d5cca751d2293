// The operator's files: kept, looked through, drawn.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Configuration.h"
#include "Mutex.h"

/**
 * In the working directory: "jobs" holds the files, "checks" what the check of each came to,
 * "incoming" what is still being received. What is refused is thrown as an ApiProblem. Any thread;
 * calls wait for the disk, and one file at a time is looked through.
 */
class JobStore
{
public:
    /** A file that is being received; gone with the object unless it was kept. */
    class Incoming
    {
    public:
        Incoming();
        Incoming(const Incoming&) = delete;
        Incoming& operator=(const Incoming&) = delete;
        ~Incoming();

        /** @return false when the disk is full, or fails */
        bool write(const char* pData, size_t uLength);

        /** All of it is there. The descriptor reads it from its beginning. */
        int finish();

        const std::string& getPath() const
        {
            return m_strPath;
        }

    private:
        std::string m_strPath;
        int m_nFd = -1;
    };

    /** @param pConfiguration  the guard's; null while it is of no use: nothing can be looked at */
    explicit JobStore(const Configuration* pConfiguration);
    JobStore(const JobStore&) = delete;
    JobStore& operator=(const JobStore&) = delete;

    /** Whether a file may have this name. */
    static bool isName(const std::string& strName);

    /** docs/api.yaml's Jobs. */
    nlohmann::json list() const;

    /** docs/api.yaml's Job. */
    nlohmann::json get(const std::string& strName) const;

    /** Keep a file under a name. @param bReplace  in place of one that has it */
    nlohmann::json add(const std::string& strName, bool bReplace, Incoming& incoming);

    /** Look through it by the limits as they are. */
    nlohmann::json check(const std::string& strName);

    void remove(const std::string& strName);

    /** The file's bytes. */
    std::string read(const std::string& strName) const;

    /** As SVG. */
    std::string draw(const std::string& strName);

    /**
     * A file that may run: its check has passed, by the limits as they are.
     * @param strText  its bytes
     * @return docs/api.yaml's Job
     */
    nlohmann::json getRunnable(const std::string& strName, std::string& strText);

    /** Where it lies. */
    static std::string getPath(const std::string& strName);

private:
    nlohmann::json readRecord(const std::string& strName) const;
    nlohmann::json look(const std::string& strName, const std::string& strText,
                        const std::string& strUploaded);
    void demandLimits() const;

    const Configuration* m_pConfiguration;
    const std::string m_strKey;             // of the limits
    std::atomic<bool> m_bLooking{false};    // somebody looks through a file
    mutable Mutex m_mtx{MUTEX_TYPE_NORMAL}; // guards the files' names; innermost
};
