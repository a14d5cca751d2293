// Fuzzes the path of a static file: any path, against a small web application.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <sys/socket.h>
#include <unistd.h>

#include "File.h"
#include "HttpFileClient.h"
#include "Log.h"
#include "WebCameraClient.h"

namespace {

const char* const FOLDER = "/tmp/run/mountd/mmcblk0p1/kestrel-server/www/";

void require(bool bHolds, const char* pWhat)
{
    if (!bHolds) {
        fprintf(stderr, "not true: %s\n", pWhat);
        abort();
    }
}

void makeFile(const std::string& strName, size_t uSize)
{
    File file;
    const std::string strContent(uSize, 'x');
    require(0 == file.open((FOLDER + strName).c_str(), FILE_FLAG_WRITE), "a file is made");
    require(uSize == file.write(strContent.data(), uSize), "and written");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    if (0 == access("/tmp/run/mountd", F_OK)) {
        fprintf(stderr, "there is an SD card; run this in tests/support/private-host\n");
        exit(1);
    }
    require(0 == File::makeDirectoryPath(FOLDER, 1), "the card's folders are made");
    makeFile("index.html", 1000);
    makeFile("empty.css", 0);
    makeFile("a.js", 1);
    require(0 == File::makeDirectory((std::string(FOLDER) + "folder.html").c_str()), "a folder");
    Log::getInstance().setSinks(0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize)
{
    const std::string strPath = "/" + std::string(reinterpret_cast<const char*>(pData), uSize);
    int anFd[2];
    require(0 == socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, anFd), "a socket pair");
    {
        WebCameraClient client;
        client.setSocket(TcpSocket(anFd[0]));
        HttpFileClient responder(client, strPath);
        const int nResult = responder.start();
        char acHead[16] = {0};
        const ssize_t nHead = recv(anFd[1], acHead, sizeof(acHead) - 1, 0);
        require(0 == nResult || 1 == nResult, "0 or 1");
        require(0 != nResult || std::string("HTTP/1.0 200 OK") == acHead, "an answer is a head");
        require(0 == nResult || nHead < 0, "what is refused gets no answer");
        require(0 == responder.stop(), "a file's responder stops");
    }
    close(anFd[0]);
    close(anFd[1]);
    return 0;
}
