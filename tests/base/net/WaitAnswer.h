// Changes what a wait of the reactor reports, where no peer can bring it about.
#pragma once

#include <cstdint>
#include <functional>

#include <sys/epoll.h>

/**
 * For its life every epoll_wait(2) of the code under test that found something runs through the
 * function, with the entries. For programs linked with --wrap=epoll_wait; one object at a time,
 * made and destroyed while no reactor runs.
 */
class WaitAnswer
{
public:
    using Change = std::function<void(epoll_event* pEvents, int nReady)>;

    explicit WaitAnswer(const Change& change);
    WaitAnswer(const WaitAnswer&) = delete;
    WaitAnswer& operator=(const WaitAnswer&) = delete;
    ~WaitAnswer();
};
