// The operator's files: kept, looked through, drawn.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Configuration.h"
#include "Mutex.h"

/** A file that may run, from its beginning or from one of its lines. */
struct RunnableJob
{
    nlohmann::json job;  // docs/api.yaml's Job
    std::string strText; // what is to be run
    std::string strSum;  // SHA-256 of that
    double dSeconds = 0; // it takes
    size_t uLine = 1;    // of the file, where it begins
    size_t uAdded = 0;   // lines that stand before that one, to set it up
};

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
     * @param uLine  the line to begin at; 1 is the first
     */
    RunnableJob getRunnable(const std::string& strName, size_t uLine);

    /**
     * Whether a file could begin behind a line, and what would be unsure then.
     * @param strSum  SHA-256 of the file that is meant
     * @return docs/api.yaml's Restart
     */
    nlohmann::json describeRestart(const std::string& strName, const std::string& strSum,
                                   size_t uThrough) const;

    /** Where it lies. */
    static std::string getPath(const std::string& strName);

private:
    nlohmann::json readRecord(const std::string& strName) const;
    nlohmann::json look(const std::string& strName, const std::string& strText,
                        const std::string& strUploaded);
    void beginAt(size_t uLine, RunnableJob& runnable) const;
    void demandLimits() const;

    const Configuration* m_pConfiguration;
    const std::string m_strKey;             // of the limits
    std::atomic<bool> m_bLooking{false};    // somebody looks through a file
    mutable Mutex m_mtx{MUTEX_TYPE_NORMAL}; // guards the files' names; innermost
};
