// The guard at work: the interlock between the ports, the operator's socket and the clock.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <poll.h>

#include "Configuration.h"
#include "FileCopy.h"
#include "GuardPort.h"
#include "IGuardActions.h"
#include "ILanguage.h"
#include "Interlock.h"
#include "Journal.h"
#include "JournalRelay.h"
#include "OperatorSocket.h"
#include "ResetPin.h"
#include "ServicePort.h"

/** How a worker ended. */
enum WORKER_E
{
    WORKER_DARK = 0,     // asked to; the beam was seen off, or there was no controller
    WORKER_NOT_SEEN = 1, // the controller did not show it, nobody has asked, or a call has failed
    WORKER_REFUSED = 2,  // another guard is there, or the configuration names what is not there
    WORKER_ANEW = 3      // SIGHUP in dark: begin again with the configuration as it is now
};

/**
 * One event loop, poll(2), without threads. SIGTERM, SIGINT and SIGHUP have to be blocked, SIGPIPE
 * ignored. Nothing is allocated on a line's way, in either direction, and nothing waits for what
 * standard output takes.
 */
class GuardWorker : public IGuardActions
{
public:
    /** @param strLastPort  file that keeps the port's path as soon as the port is ours */
    GuardWorker(const Configuration& configuration, std::string strLastPort, int nBeatFd);
    GuardWorker(const GuardWorker&) = delete;
    GuardWorker& operator=(const GuardWorker&) = delete;
    ~GuardWorker() override;

    /** Works until a signal ends it. Sends a byte to the beat's socket every 200 ms, and with one
     * the port that it has opened. */
    WORKER_E run();

    void toController(const char* pBytes, size_t uLength) override;
    void cutBeam(const char* pBytes, size_t uLength) override;
    void toService(const char* pBytes, size_t uLength) override;
    void holdReset(bool bLow) override;
    void tell(NOTICE_E eNotice, int nDetail) override;

private:
    /** A request whose file is being copied. */
    struct Copying
    {
        unsigned uClient = 0;
        bool bFirmware = false;
        int64_t s64LeaseMs = 0;
        uint64_t u64Size = 0; // as told, of firmware
        std::string strSum;
    };

    static std::unique_ptr<ILanguage> makeLanguage(const Configuration& configuration);
    static int64_t nowUs();

    std::optional<WORKER_E> begin();
    static WORKER_E refuse(WORKER_E eHow, const std::string& strText);
    bool isEnded() const;
    void openPort();
    void tellPortError();
    void losePort();
    void keepLastPort();
    void renewTerminal();
    void waitAndServe();
    void serveController();
    void serveService();
    void serveSignal();
    void end();
    void beat();
    bool sendBeat(bool bPort) const;
    void showPort();
    int64_t getWaitMs() const;

    // The operator's requests.
    std::string onRequest(OperatorSocket::Client& client, const std::string& strLine);
    std::string onWish(const OperatorSocket::Client& client, const std::string& strDo);
    std::string takeFile(OperatorSocket::Client& client, const Copying& copying);
    void copyOn();
    std::string openJob(const Copying& copying);
    std::string sendFirmware(const Copying& copying);
    std::string describeState() const;

    Configuration m_configuration;
    std::string m_strLastPort;
    int m_nBeatFd;
    int m_nSignalFd = -1;
    std::unique_ptr<ILanguage> m_pLanguage;
    JournalRelay m_relay; // started before any other descriptor is open
    Journal m_journal;
    GuardPort m_port;
    ResetPin m_resetPin;
    ServicePort m_servicePort;
    OperatorSocket m_operator;
    FileCopy m_job;
    FileCopy m_image;
    Copying m_copying;
    std::vector<pollfd> m_vecPoll; // kept: nothing allocates on a line's way
    unsigned m_uJobOwner = 0;      // the client that renews the lease
    std::string m_strJobSum;       // of the last job opened
    TRIP_E m_eTrip = TRIP_NONE;
    Interlock m_interlock;

    bool m_bEnding = false;
    bool m_bOrphan = false; // nobody has asked for the end
    int64_t m_s64EndUs = 0;
    bool m_bAnew = false;
    int m_nPortError = 0;    // the last that was told
    bool m_bUnread = false;  // the service has not taken an answer
    int64_t m_s64BeatUs = 0; // when the next beat is due
    bool m_bShown = true;    // the parent has the port
    int64_t m_s64OpenUs = 0; // when the port is looked for again
    int64_t m_s64TerminalUs = 0;
};
