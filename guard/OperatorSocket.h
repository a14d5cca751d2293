// The socket on which the operator's programs talk to the guard: lines in, lines out.
#pragma once

#include <functional>
#include <list>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

enum SOCKET_E
{
    SOCKET_OPEN,
    SOCKET_REFUSED, // somebody listens there already, or path or group cannot be
    SOCKET_FAILED   // a call has failed, which may succeed another time
};

/**
 * A Unix stream socket, mode 0660. Each line is a request and gets one line; events go to whoever
 * has asked for them. At most MAX_CLIENTS connections; one that sends a line over MAX_LINE bytes,
 * or does not take what it is sent, is closed. Nothing blocks, and no line waits here to be sent.
 * One thread.
 */
class OperatorSocket
{
public:
    static const size_t MAX_CLIENTS = 8;
    static const size_t MAX_LINE = 4096;

    /** Who has sent a line. */
    struct Client
    {
        int nFd = -1;
        unsigned uNumber = 0; // never used twice
        uid_t uUser = 0;
        bool bEvents = false;
        bool bWaiting = false; // for an answer that comes later; its next lines wait as well
        int nPassed = -1;      // a descriptor that came along; the handler may take it
        std::string strInput;
    };

    /** @return the line to answer, without its end; empty: answer() follows */
    using Handler = std::function<std::string(Client& client, const std::string& strLine)>;

    explicit OperatorSocket(Handler handler) : m_handler(std::move(handler)) {}
    OperatorSocket(const OperatorSocket&) = delete;
    OperatorSocket& operator=(const OperatorSocket&) = delete;

    /** The socket goes with the object. */
    ~OperatorSocket();

    /**
     * @param strGroup  who may connect besides the owner; empty: the process's group
     * @param strError  one line, unless it is open
     */
    SOCKET_E open(const std::string& strPath, const std::string& strGroup, std::string& strError);

    /** Append what to wait for. */
    void addTo(std::vector<pollfd>& vecPoll) const;

    /** Serve what has come, looked at by descriptor. */
    void serve(const std::vector<pollfd>& vecPoll);

    bool isConnected(unsigned uNumber) const;

    /** The answer that the handler has put off; nothing when that client is gone. */
    void answer(unsigned uNumber, const std::string& strLine);

    /** Send a line to whoever has asked for events. Allocates nothing. @param pLine  with its end
     */
    void publish(const char* pLine);

private:
    static bool isTaken(const std::string& strPath);
    void accept();
    bool receive(Client& client);
    bool handleLines(Client& client);
    static void takePassed(Client& client, const msghdr& message);
    static bool send(const Client& client, const char* pText, size_t uLength);
    static bool send(const Client& client, const std::string& strLine);
    static void close(Client& client);

    Handler m_handler;
    std::string m_strPath;
    int m_nFd = -1;
    unsigned m_uNumber = 0;
    std::list<Client> m_listClient;
};
