// An interlock on a test's desk: events in by hand, everything that goes out kept.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "DeskLimits.h"
#include "GrblLanguage.h"
#include "Interlock.h"
#include "KestrelLanguage.h"

/** Keeps what the interlock does. */
class DeskActions : public IGuardActions
{
public:
    void toController(const char* pBytes, size_t uLength) override
    {
        m_strController.append(pBytes, uLength);
    }
    void cutBeam(const char* pBytes, size_t uLength) override
    {
        m_strController.append(pBytes, uLength);
    }
    void toService(const char* pBytes, size_t uLength) override
    {
        m_vecService.emplace_back(pBytes, uLength);
    }
    void holdReset(bool bLow) override
    {
        m_bReset = bLow;
    }
    void tell(NOTICE_E eNotice, int nDetail) override
    {
        m_vecNotice.emplace_back(eNotice, nDetail);
    }

    std::string m_strController;
    std::vector<std::string> m_vecService; // one write each
    std::vector<std::pair<NOTICE_E, int>> m_vecNotice;
    bool m_bReset = false;
};

/** Time stands still unless a test lets it pass. */
class InterlockDesk
{
public:
    explicit InterlockDesk(const ILanguage& language, bool bHoming = true)
        : m_language(language), m_interlock(language, deskLimits(), m_actions, bHoming)
    {
    }

    void service(const std::string& strBytes)
    {
        m_interlock.onServiceBytes(strBytes.data(), strBytes.size(), m_s64NowUs);
    }
    void controller(const std::string& strBytes)
    {
        m_interlock.onControllerBytes(strBytes.data(), strBytes.size(), m_s64NowUs);
    }

    /** Let time pass; what falls due on the way is done at its time. */
    void pass(int64_t s64Ms)
    {
        const int64_t s64EndUs = m_s64NowUs + s64Ms * 1000;
        for (int n = 0; n < 100000 && m_interlock.getDeadline() <= s64EndUs; ++n) {
            m_s64NowUs = std::max(m_s64NowUs, m_interlock.getDeadline());
            m_interlock.onTime(m_s64NowUs);
            answerQuestions();
        }
        m_s64NowUs = s64EndUs;
    }

    /** Bytes to the controller since the last call, without questions. */
    std::string sent()
    {
        std::string strSent;
        strSent.swap(m_actions.m_strController);
        strSent.erase(std::remove(strSent.begin(), strSent.end(), '?'), strSent.end());
        return strSent;
    }

    /** Writes to the service since the last call, with a bar between two. */
    std::string told()
    {
        std::string strTold;
        for (const std::string& strWrite : m_actions.m_vecService) {
            strTold += (strTold.empty() ? "" : "|") + strWrite;
        }
        m_actions.m_vecService.clear();
        return strTold;
    }

    /** How often something was told, with this detail; -1: any. */
    int count(NOTICE_E eNotice, int nDetail = -1) const
    {
        return static_cast<int>(std::count_if(
            m_actions.m_vecNotice.begin(), m_actions.m_vecNotice.end(),
            [=](const std::pair<NOTICE_E, int>& notice) {
                return notice.first == eNotice && (-1 == nDetail || notice.second == nDetail);
            }));
    }
    bool tripped(TRIP_E eReason) const
    {
        return LEVEL_DARK == m_interlock.getLevel() && 1 == count(NOTICE_TRIP, eReason);
    }

    /** A report that questions are answered with from now on; empty: none. */
    void report(const std::string& strReport)
    {
        m_strReport = strReport;
        answerQuestions();
    }

    /** The port comes and the controller shows that the beam is off. */
    void plug()
    {
        m_interlock.onPortUp(m_s64NowUs);
        greet();
    }
    void greet()
    {
        if (m_language.hasReports()) {
            m_strReport = "<Idle|MPos:0.000,0.000,0.000|FS:0,0>\n";
            controller("\r\nGrbl 1.1h ['$' for help]\r\n");
            pass(0);
            controller("$32=1\r\nok\r\n");
            controller("[G54:0.000,0.000,0.000]\r\n[G92:0.000,0.000,0.000]\r\nok\r\n");
        } else {
            controller("ready\n");
        }
    }

    /** In motion, its pilot spot on. @return whether it was allowed */
    bool raise()
    {
        const bool bRaised = WISH_DONE == m_interlock.raise(m_s64NowUs);
        if (bRaised && m_language.hasReports()) {
            controller("ok\n");
        }
        return bRaised;
    }

    /** Plugged in, in motion and homed. */
    void home()
    {
        plug();
        raise();
        (void)m_interlock.home(m_s64NowUs);
        controller("ok\n");
        if (!m_language.hasReports()) {
            controller("done\n");
        }
        pass(200);
        if (m_language.hasReports()) {
            controller("ok\n"); // the pilot spot
        }
        forget();
    }

    /** Homed, with a job. */
    void open(const std::string& strJob, int64_t s64LeaseMs = 0)
    {
        home();
        m_strJob = strJob;
        (void)m_interlock.openJob(m_strJob.data(), m_strJob.size(), s64LeaseMs * 1000, m_s64NowUs);
        forget();
    }

    /** What has gone out so far is of no interest. */
    void forget()
    {
        (void)sent();
        (void)told();
        m_actions.m_vecNotice.clear();
    }

    const ILanguage& m_language;
    DeskActions m_actions;
    Interlock m_interlock;
    int64_t m_s64NowUs = 1000000;

private:
    void answerQuestions()
    {
        std::string& strSent = m_actions.m_strController;
        for (size_t u = strSent.find('?'); std::string::npos != u; u = strSent.find('?')) {
            strSent.erase(u, 1);
            if (!m_strReport.empty()) {
                controller(m_strReport);
            }
        }
    }

    std::string m_strReport;
    std::string m_strJob;
};

static const std::string CUT = "\x18";
