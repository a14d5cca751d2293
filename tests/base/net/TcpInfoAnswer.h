// Changes what the kernel tells of a connection, where no peer can bring it about in time.
#pragma once

#include <functional>

#include <netinet/tcp.h>
#include <sys/socket.h>

/**
 * For its life every getsockopt(2) of the code under test that asks for TCP_INFO gets an answer of
 * zeroes that has run through the function, which may shorten it, too. For programs linked with
 * --wrap=getsockopt; one object at a time, made and destroyed while nobody asks.
 */
class TcpInfoAnswer
{
public:
    using Change = std::function<void(tcp_info& info, socklen_t& uLength)>;

    explicit TcpInfoAnswer(const Change& change);
    TcpInfoAnswer(const TcpInfoAnswer&) = delete;
    TcpInfoAnswer& operator=(const TcpInfoAnswer&) = delete;
    ~TcpInfoAnswer();
};
