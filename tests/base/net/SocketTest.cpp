// Socket: addresses, copies, waits for readiness.
#include "Socket.h"

#include <cerrno>
#include <cstdio>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "SocketFailure.h"

namespace {

using Lines = std::vector<std::string>;

} // namespace

TEST(Socket, BindTakesTextOrEveryAddress)
{
    Socket socket = datagramSocket();
    SocketAddress address;

    ASSERT_EQ(0, socket.bind("127.0.0.1", 0));
    ASSERT_EQ(0, socket.getLocalSockAddr(address));
    EXPECT_STREQ("127.0.0.1", address.acIp);
    const uint16_t u16Port = address.u16Port;
    EXPECT_EQ(portOf(socket.getFd()), u16Port);
    ASSERT_EQ(0, socket.close());

    socket = datagramSocket();
    ASSERT_EQ(0, socket.bind(nullptr, u16Port));
    ASSERT_EQ(0, socket.getLocalSockAddr(address));
    EXPECT_STREQ("0.0.0.0", address.acIp);
    EXPECT_EQ(u16Port, address.u16Port);
    ASSERT_EQ(0, socket.close());
}

TEST(Socket, ConnectTakesTextOrAddress)
{
    Socket receiver = datagramSocket();
    ASSERT_EQ(0, receiver.bind("127.0.0.1", 0));
    const uint16_t u16Port = portOf(receiver.getFd());
    sockaddr_in raw{};
    SocketAddress peer;

    Socket byText = datagramSocket();
    ASSERT_EQ(0, byText.connect("127.0.0.1", u16Port));
    ASSERT_EQ(0, byText.getRemoteSockAddr(peer));
    EXPECT_STREQ("127.0.0.1", peer.acIp);
    EXPECT_EQ(u16Port, peer.u16Port);

    Socket byAddress = datagramSocket();
    ASSERT_EQ(0, Socket::toSockAddr("127.0.0.1", u16Port, raw));
    ASSERT_EQ(0, byAddress.connect(raw));
    ASSERT_EQ(0, byAddress.getRemoteSockAddr(raw));
    EXPECT_EQ(htons(u16Port), raw.sin_port);
    EXPECT_EQ(htonl(INADDR_LOOPBACK), raw.sin_addr.s_addr);

    EXPECT_EQ(-1, byText.connect("no address", u16Port));
    EXPECT_EQ(-1, byText.connect(nullptr, u16Port));
    (void)receiver.close();
    (void)byText.close();
    (void)byAddress.close();
}

TEST(Socket, AddressesConvertBothWays)
{
    sockaddr_in raw{};
    SocketAddress text;

    ASSERT_EQ(0, Socket::toSockAddr("192.168.100.200", 8329, raw));
    EXPECT_EQ(AF_INET, raw.sin_family);
    EXPECT_EQ(htons(8329), raw.sin_port);
    EXPECT_EQ(htonl(0xC0A864C8U), raw.sin_addr.s_addr);

    Socket::fromSockAddr(raw, text);
    EXPECT_STREQ("192.168.100.200", text.acIp);
    EXPECT_EQ(8329, text.u16Port);

    ASSERT_EQ(0, Socket::toSockAddr("255.255.255.255", 65535, raw));
    Socket::fromSockAddr(raw, text);
    EXPECT_STREQ("255.255.255.255", text.acIp); // fills the text's sixteen characters
    EXPECT_EQ(-1, Socket::toSockAddr("1.2.3", 1, raw));
}

TEST(Socket, AddressThatCantBeAskedForIsEmpty)
{
    Socket socket = datagramSocket();
    SocketAddress address;
    snprintf(address.acIp, sizeof(address.acIp), "1.1.1.1");
    address.u16Port = 1;
    LogCapture log;

    EXPECT_EQ(-1, socket.getRemoteSockAddr(address));

    EXPECT_STREQ("", address.acIp);
    EXPECT_EQ(0, address.u16Port);
    EXPECT_EQ(Lines({"[error] [Socket ] [getRemoteSockAddr] ENOTCONN The socket is not connected, "
                     "and no target has been given.\n"}),
              takeLines(log));
    (void)socket.close();
}

TEST(Socket, CopiesShareTheDescriptorAndNobodyClosesItUnasked)
{
    int nFd = -1;
    {
        Socket socket = datagramSocket();
        nFd = socket.getFd();
        const Socket copy(socket);
        Socket assigned;
        assigned = copy;
        EXPECT_EQ(nFd, assigned.getFd());
        EXPECT_TRUE(assigned == socket);
    }
    EXPECT_TRUE(isOpen(nFd));

    Socket view(nFd);
    EXPECT_EQ(0, view.close());

    EXPECT_FALSE(isOpen(nFd));
    EXPECT_FALSE(view.isValid());
    EXPECT_EQ(0, view.close());
}

TEST(Socket, SocketsCompareByDescriptor)
{
    const Socket three(3);
    const Socket four(4);
    EXPECT_TRUE(three == Socket(3));
    EXPECT_FALSE(three == four);
    EXPECT_TRUE(three < four);
    EXPECT_FALSE(four < three);
    EXPECT_TRUE(four > three);
    EXPECT_FALSE(three > three);
    EXPECT_FALSE(three < three);
}

TEST(Socket, ShutdownPassesThrough)
{
    NetPair pair;
    char cByte = 0;

    EXPECT_EQ(0, pair.m_near.shutdown(SHUT_WR));

    EXPECT_EQ(0, recv(pair.m_far.getFd(), &cByte, 1, 0));
    Socket unconnected = datagramSocket();
    EXPECT_EQ(-1, unconnected.shutdown(SHUT_RD));
    (void)unconnected.close();
}

TEST(Socket, WaitsSeeReadinessAndTimeOut)
{
    NetPair pair;
    EXPECT_FALSE(pair.m_near.waitReadable(Time(0, 1000)));
    EXPECT_TRUE(pair.m_near.waitWritable(Time(0, 1000)));

    ASSERT_EQ(1, send(pair.m_far.getFd(), "x", 1, 0));
    EXPECT_TRUE(pair.m_near.waitReadable(Time(30, 0)));

    EXPECT_TRUE(eventually([&] { // what was full may have room again once the peer has it
        (void)fillUp(pair.m_near);
        return !pair.m_near.waitWritable(Time(0, 1000));
    }));
}

TEST(Socket, DescriptorsAboveASelectSetWork)
{
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    const rlimit old = limit;
    limit.rlim_cur = 2048;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    NetPair pair;
    const int nHigh = fcntl(pair.m_near.getFd(), F_DUPFD_CLOEXEC, 1500);
    ASSERT_GE(nHigh, 1500);
    TcpSocket high(nHigh);

    EXPECT_FALSE(high.waitReadable(Time(0, 1000)));
    EXPECT_TRUE(high.waitWritable(Time(0, 1000)));
    EXPECT_EQ(2, high.checkState());
    ASSERT_EQ(1, send(pair.m_far.getFd(), "x", 1, 0));
    EXPECT_TRUE(high.waitReadable(Time(30, 0)));
    EXPECT_EQ(3, high.checkState());

    (void)high.close();
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &old));
}
