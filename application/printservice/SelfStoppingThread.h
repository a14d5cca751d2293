// A thread whose body can also stop it: the one that carries out print jobs.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "Thread.h"

/**
 * The body may request a stop and still run to the end of its call; a start that comes after the
 * request takes it back.
 */
class SelfStoppingThread
{
public:
    /** The thread waits for start(). @param pBody  called again and again while it runs */
    template <class C>
    SelfStoppingThread(int (C::*pBody)(), C* pObject, const std::string& strName)
        : m_thread(pBody, pObject, strName, 0, 0, 0, true)
    {
    }

    /** Run the body; never lost, also while the thread is on its way to park. */
    void start();

    /** Wait until the body's call is over and stop; from the body itself askToStop(). */
    void stop();

    /** For the body: stop when its call is over. */
    void askToStop();

    /** The body's last step: parks here until the next start() when a stop was asked for. */
    void parkIfAsked();

private:
    /** A stop that the thread has asked of itself. */
    enum STOP_WISH_E : int32_t
    {
        STOP_WISH_NONE,
        STOP_WISH_ASKED,  // takes effect in parkIfAsked()
        STOP_WISH_PARKING // parkIfAsked() is about to park, or has parked
    };

    std::atomic<STOP_WISH_E> m_nStopWish{STOP_WISH_NONE};
    Thread m_thread; // last: its body uses the wish
};
