// The guard at work: the interlock between the ports, the operator's socket and the clock.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <poll.h>

#include "Configuration.h"
#include "GuardPort.h"
#include "IGuardActions.h"
#include "ILanguage.h"
#include "Interlock.h"
#include "JobCopy.h"
#include "Journal.h"
#include "OperatorSocket.h"
#include "ServicePort.h"

/** How a worker ended. */
enum WORKER_E
{
    WORKER_DARK = 0,     // asked to, and the beam was seen off
    WORKER_NOT_SEEN = 1, // asked to, and it was not
    WORKER_REFUSED = 2,  // could not begin; nothing was sent
    WORKER_ANEW = 3      // SIGHUP in dark: begin again with the configuration as it is now
};

/** One event loop, poll(2), without threads. SIGTERM, SIGINT and SIGHUP have to be blocked. */
class GuardWorker : public IGuardActions
{
public:
    GuardWorker(const Configuration& configuration, int nBeatFd);
    GuardWorker(const GuardWorker&) = delete;
    GuardWorker& operator=(const GuardWorker&) = delete;
    ~GuardWorker() override;

    /** Works until a signal ends it. Writes a byte to the beat's descriptor every 200 ms. */
    WORKER_E run();

    void toController(const char* pBytes, size_t uLength) override;
    void cutBeam(const char* pBytes, size_t uLength) override;
    void toService(const char* pBytes, size_t uLength) override;
    void holdReset(bool bLow) override;
    void tell(NOTICE_E eNotice, int nDetail) override;

private:
    static std::unique_ptr<ILanguage> makeLanguage(const Configuration& configuration);

    bool begin();
    void openPort();
    void waitAndServe();
    void serveController();
    void serveService();
    void serveSignal();
    void beat();
    int64_t getWaitMs() const;
    void setResetLine(const char* pValue);

    std::string onRequest(OperatorSocket::Client& client, const std::string& strLine);
    std::string openJob(OperatorSocket::Client& client, int64_t s64LeaseMs);
    std::string describeState() const;

    Configuration m_configuration;
    int m_nBeatFd;
    int m_nSignalFd = -1;
    std::unique_ptr<ILanguage> m_pLanguage;
    Journal m_journal;
    GuardPort m_port;
    ServicePort m_servicePort;
    OperatorSocket m_operator;
    JobCopy m_job;
    std::vector<pollfd> m_vecPoll; // kept: nothing allocates on a line's way
    unsigned m_uJobOwner = 0;      // the client that renews the lease
    TRIP_E m_eTrip = TRIP_NONE;
    Interlock m_interlock;

    bool m_bEnding = false;
    int64_t m_s64EndUs = 0;
    bool m_bAnew = false;
    int64_t m_s64BeatUs = 0;
    int64_t m_s64OpenUs = 0; // when the port is looked for again
};
