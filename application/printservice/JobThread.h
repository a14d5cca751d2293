// The thread of a print job, which can also stop itself.
#pragma once

#include <atomic>
#include <cstdint>

#include "Thread.h"

/**
 * The thread "printservice". Its body may request a stop and run to the end of its call; a start
 * that comes after that takes the wish back.
 */
class JobThread
{
public:
    /** The thread waits for start(). @param pBody  called again and again while it runs */
    template <class C>
    JobThread(int (C::*pBody)(), C* pObject)
        : m_thread(pBody, pObject, "printservice", 0, 0, 0, true)
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
