// A controller that answers each line with "ok", on a pseudo terminal, at the least possible cost.
#include "PtyPeer.h"

#include <cstdlib>
#include <ctime>
#include <stdexcept>

#include <fcntl.h>
#include <sched.h>
#include <termios.h>
#include <unistd.h>

namespace {

const int64_t NS = 1000000000;

int64_t nowNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * NS + ts.tv_nsec;
}

void sleepUntil(int64_t s64Ns)
{
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(s64Ns / NS);
    ts.tv_nsec = static_cast<long>(s64Ns % NS);
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr);
}

} // namespace

void stayOnProcessor(int nProcessor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(nProcessor, &set);
    (void)sched_setaffinity(0, sizeof(set), &set); // refused: as the scheduler likes
}

PtyPeer::PtyPeer(long nDelayUs) : m_nDelayUs(nDelayUs)
{
    m_nMaster = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (m_nMaster < 0 || 0 != grantpt(m_nMaster) || 0 != unlockpt(m_nMaster)) {
        throw std::runtime_error("no pseudo terminal");
    }
    m_strPath = ptsname(m_nMaster);
    m_nSlave = open(m_strPath.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios attr{};
    tcgetattr(m_nSlave, &attr);
    cfmakeraw(&attr);
    tcsetattr(m_nSlave, TCSANOW, &attr);
    m_thread = std::thread(&PtyPeer::answer, this);
}

PtyPeer::~PtyPeer()
{
    close(m_nSlave); // the last one: the thread's read fails
    m_thread.join();
    close(m_nMaster);
}

void PtyPeer::reset()
{
    m_u32Lines = 0;
}

double PtyPeer::seconds() const
{
    return static_cast<double>(m_s64LastNs - m_s64FirstNs) * 1e-9;
}

void PtyPeer::answer()
{
    stayOnProcessor(1);
    char acLine[256];
    while (read(m_nMaster, acLine, sizeof(acLine)) > 0) {
        const int64_t s64Ns = nowNs();
        if (0 == m_u32Lines) {
            m_s64FirstNs = s64Ns;
        }
        m_s64LastNs = s64Ns;
        ++m_u32Lines;
        if (m_nDelayUs > 0) {
            sleepUntil(s64Ns + m_nDelayUs * 1000);
        }
        if (3 != write(m_nMaster, "ok\n", 3)) {
            return;
        }
    }
}
