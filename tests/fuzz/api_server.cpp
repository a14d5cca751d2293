// The bytes of a connection to the operator's interface, with all behind it but a guard: each gets
// an HTTP answer or a close, nobody without the token gets anything done, and nothing hangs.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ApiServer.h"
#include "JobApi.h"
#include "Log.h"
#include "Station.h"
#include "StationApi.h"

static const int PORT = 8330;
static const char* const TOKEN = "0123456789abcdef0123456789abcdef";
static const char* const ALIVE = "{\"status\":\"ok\"}\n"; // what everybody may know
static const int END_MS = 15000;                          // only ends a run that hangs

namespace {

void require(bool bHolds, const char* pWhat)
{
    if (!bHolds) {
        fprintf(stderr, "not true: %s\n", pWhat);
        abort();
    }
}

/** Whether a text is there, in whatever case. */
bool mentions(const std::string& strText, const std::string& strWhat)
{
    return strText.end() !=
           std::search(strText.begin(), strText.end(), strWhat.begin(), strWhat.end(),
                       [](char a, char b) { return tolower(static_cast<unsigned char>(a)) == b; });
}

/** As a client sends it: in two parts, then no more; returns all that comes back until the end. */
std::string exchange(const std::string& strSent)
{
    const int nFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    require(0 == connect(nFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
            "it listens");
    size_t uCut = 0;
    for (const char c : strSent) { // the same for the same bytes
        uCut += static_cast<unsigned char>(c);
    }
    uCut = strSent.empty() ? 0 : uCut % strSent.size();
    // It may have closed by then, which fails both.
    (void)!send(nFd, strSent.data(), uCut, MSG_NOSIGNAL);
    (void)!send(nFd, strSent.data() + uCut, strSent.size() - uCut, MSG_NOSIGNAL);
    (void)shutdown(nFd, SHUT_WR);
    std::string strAnswer;
    for (;;) {
        pollfd each = {nFd, POLLIN, 0};
        require(1 == poll(&each, 1, END_MS), "an answer or a close");
        char acData[65536];
        const ssize_t nRead = recv(nFd, acData, sizeof(acData), 0);
        if (nRead <= 0) { // reset: it has closed without having read all
            break;
        }
        strAnswer.append(acData, static_cast<size_t>(nRead));
    }
    const linger none = {1, 0}; // the address is free at once
    (void)setsockopt(nFd, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
    close(nFd);
    return strAnswer;
}

/** The value of a header; empty without it. */
std::string headerOf(const std::string& strHead, const std::string& strName)
{
    const size_t uAt = strHead.find("\r\n" + strName + ": ");
    if (std::string::npos == uAt) {
        return "";
    }
    const size_t uBegin = uAt + strName.size() + 4;
    return strHead.substr(uBegin, strHead.find("\r\n", uBegin) - uBegin);
}

/** One answer after the other; what a close has cut is none. */
void judge(const std::string& strSent, const std::string& strAnswer)
{
    const bool bToken = std::string::npos != strSent.find(TOKEN);
    const bool bHead = std::string::npos != strSent.find("HEAD"); // its answer has no body
    size_t uAt = 0;
    while (uAt < strAnswer.size()) {
        require(0 == strAnswer.compare(uAt, 9, "HTTP/1.1 "), "an HTTP answer");
        const size_t uEnd = strAnswer.find("\r\n\r\n", uAt);
        require(std::string::npos != uEnd, "a whole head");
        const std::string strHead = strAnswer.substr(uAt, uEnd + 2 - uAt);
        const int nStatus = atoi(strHead.c_str() + 9);
        require(nStatus >= 100 && nStatus <= 599, "a status");
        require(500 != nStatus, "nothing fails inside");
        const std::string strLength = headerOf(strHead, "Content-Length");
        const bool bEmpty = nStatus < 200 || 204 == nStatus || 304 == nStatus;
        const size_t uLength = (bEmpty || strLength.empty())
                                   ? 0
                                   : static_cast<size_t>(strtoull(strLength.c_str(), nullptr, 10));
        const std::string strBody = strAnswer.substr(uEnd + 4, bHead ? 0 : uLength);
        if (nStatus >= 400 && !bHead) {
            require("application/problem+json" == headerOf(strHead, "Content-Type"), "a problem");
        }
        if (200 <= nStatus && nStatus < 300 && !bToken) {
            const bool bAsked = 204 == nStatus && std::string::npos != strSent.find("OPTIONS");
            require(bAsked || ALIVE == strBody || (bHead && strBody.empty()), "the token");
        }
        if (bHead || (!bEmpty && strLength.empty())) {
            return; // where the next one begins is not told, or the body goes on to the end
        }
        uAt = uEnd + 4 + uLength;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* pCount, char*** pArguments)
{
    for (int i = 1; i < *pCount; ++i) { // the corpus stays where it is
        char* const pPath = realpath((*pArguments)[i], nullptr);
        (*pArguments)[i] = (nullptr == pPath) ? (*pArguments)[i] : pPath;
    }
    Log::getInstance().setSinks(0);
    std::string strFolder = "/tmp/kestrel-fuzz-XXXXXX";
    require(nullptr != mkdtemp(strFolder.data()) && 0 == chdir(strFolder.c_str()), "a folder");
    // All of it until the end of the program.
    static auto* const s_pStation = [] {
        StationConfiguration configuration;
        configuration.strGuard = "none";
        return new Station(configuration);
    }();
    static auto* const s_pServer =
        new ApiServer(RequestRules(TOKEN, {"arm.example"}, {"https://arm.example"}));
    static auto* const s_pApi = new StationApi(*s_pServer, *s_pStation);
    static auto* const s_pJobs = new JobApi(s_pServer->getRouter(), *s_pStation);
    (void)s_pApi;
    (void)s_pJobs;
    std::string strError;
    require(s_pServer->listen("127.0.0.1", PORT, strError), "it listens");
    s_pStation->start();
    s_pServer->start();
    // A watcher is noticed to be gone at the next event, which is a second away: here sooner.
    std::thread([] {
        for (;;) {
            s_pStation->getBoard().wake();
            usleep(2000);
        }
    }).detach();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize)
{
    const std::string strSent(reinterpret_cast<const char*>(pData), uSize);
    if (mentions(strSent, "range")) { // a part of an answer is none that judge() knows
        return -1;
    }
    judge(strSent, exchange(strSent));
    return 0;
}
