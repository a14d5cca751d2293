// A thread whose body can also stop it: the one that carries out print jobs.
#include "SelfStoppingThread.h"

#include <sys/syscall.h>
#include <unistd.h>

void SelfStoppingThread::start()
{
    STOP_WISH_E eWish = STOP_WISH_ASKED;
    if (!m_nStopWish.compare_exchange_strong(eWish, STOP_WISH_NONE) && STOP_WISH_PARKING == eWish) {
        m_thread.stop(); // until it has parked: a start that comes before that would be lost
    }
    m_thread.start();
}

void SelfStoppingThread::stop()
{
    if (static_cast<int32_t>(syscall(SYS_gettid)) == m_thread.getTid()) {
        askToStop();
    } else {
        m_thread.stop();
    }
}

void SelfStoppingThread::askToStop()
{
    m_nStopWish = STOP_WISH_ASKED;
}

void SelfStoppingThread::parkIfAsked()
{
    STOP_WISH_E eAsked = STOP_WISH_ASKED;
    if (m_nStopWish.compare_exchange_strong(eAsked, STOP_WISH_PARKING)) {
        m_thread.stop(); // returns after the next start
        m_nStopWish = STOP_WISH_NONE;
    }
}
