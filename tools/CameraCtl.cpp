// kestrel-camera-ctl: gives one command to a running kestrel-camera and prints its answer.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const char* const USAGE = "usage: kestrel-camera-ctl [--dir DIR] COMMAND [ARGUMENT ...]\n"
                          "DIR is that of kestrel-camera: KESTREL_CAMERA_DIR, else "
                          "/tmp/kestrel-camera.\n";

int connectTo(const std::string& strPath)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strPath.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(address.sun_path, strPath.c_str(), strPath.size() + 1);
    const int nFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (nFd >= 0 && 0 != ::connect(nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address))) {
        const int nError = errno;
        ::close(nFd);
        errno = nError;
        return -1;
    }
    return nFd;
}

// The answer without its line end; empty when the connection broke.
std::string ask(int nFd, const std::string& strCommand)
{
    const std::string strLine = strCommand + "\n";
    for (size_t nSent = 0; nSent < strLine.size();) {
        const ssize_t nDone =
            ::send(nFd, strLine.data() + nSent, strLine.size() - nSent, MSG_NOSIGNAL);
        if (nDone < 0 && EINTR == errno) {
            continue;
        }
        if (nDone < 0) {
            return "";
        }
        nSent += static_cast<size_t>(nDone);
    }
    std::string strAnswer;
    for (char c = 0;;) {
        const ssize_t nDone = ::recv(nFd, &c, 1, 0);
        if (nDone < 0 && EINTR == errno) {
            continue;
        }
        if (nDone <= 0) {
            return "";
        }
        if ('\n' == c) {
            return strAnswer;
        }
        strAnswer += c;
    }
}

} // namespace

// Exit status: 0 done, 1 refused (the reason is printed), 2 wrong usage or nobody to ask.
int main(int nCount, char** ppArgument)
{
    const char* pDir = getenv("KESTREL_CAMERA_DIR");
    std::string strDir = nullptr != pDir && '\0' != *pDir ? pDir : "/tmp/kestrel-camera";
    int nFirst = 1;
    if (nCount > 2 && 0 == strcmp("--dir", ppArgument[1])) {
        strDir = ppArgument[2];
        nFirst = 3;
    }
    if (nFirst >= nCount || '-' == ppArgument[nFirst][0]) {
        fputs(USAGE, stderr);
        return 2;
    }
    std::string strCommand = ppArgument[nFirst];
    for (int i = nFirst + 1; i < nCount; i++) {
        strCommand += std::string(" ") + ppArgument[i];
    }
    const std::string strPath = strDir + "/control.sock";
    const int nFd = connectTo(strPath);
    if (nFd < 0) {
        fprintf(stderr, "%s: %s\n", strPath.c_str(), strerror(errno));
        return 2;
    }
    const std::string strAnswer = ask(nFd, strCommand);
    ::close(nFd);
    if (strAnswer.empty()) {
        fprintf(stderr, "%s: no answer\n", strPath.c_str());
        return 2;
    }
    puts(strAnswer.c_str());
    return 0 == strAnswer.compare(0, 2, "ok") ? 0 : 1;
}
