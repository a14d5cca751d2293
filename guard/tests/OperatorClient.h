// The operator's end of the guard's socket, for tests.
#pragma once

#include <string>

/** The operator's end of the socket. */
class OperatorClient
{
public:
    /** Connects, waiting for the socket to come. */
    explicit OperatorClient(const std::string& strPath);
    OperatorClient(const OperatorClient&) = delete;
    OperatorClient& operator=(const OperatorClient&) = delete;
    ~OperatorClient();

    /** Send a request line; a descriptor may go along. @return the answer's line */
    std::string ask(const std::string& strLine, int nPassed = -1);

    /** The next line; empty when the guard has closed the connection. */
    std::string readLine();

private:
    int m_nFd;
    std::string m_strInput;
};
