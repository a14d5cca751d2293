// kestrel-controller-ctl: give a running kestrel-controller one instruction and print its answer.
#include <cstdio>
#include <cstring>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int nArgs, char** apArgs)
{
    if (nArgs < 3) {
        fprintf(stderr, "usage: %s SOCKET instruction...\n", apArgs[0]);
        return 2;
    }
    std::string strLine;
    for (int i = 2; i < nArgs; ++i) {
        strLine += (strLine.empty() ? "" : " ") + std::string(apArgs[i]);
    }
    strLine += "\n";

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, apArgs[1], sizeof(address.sun_path) - 1);
    const int nFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (nFd < 0 || 0 != connect(nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) ||
        static_cast<ssize_t>(strLine.size()) !=
            send(nFd, strLine.data(), strLine.size(), MSG_NOSIGNAL)) {
        perror(apArgs[1]);
        return 1;
    }
    std::string strAnswer;
    for (char c = 0; read(nFd, &c, 1) == 1 && '\n' != c;) {
        strAnswer += c;
    }
    printf("%s\n", strAnswer.c_str());
    return (strAnswer.empty() || 0 == strAnswer.compare(0, 6, "error:")) ? 1 : 0;
}
