// The files of a support archive, while they are gathered.
#include "SupportFolder.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Descriptor.h"

static const size_t MAX_TEXT = 4194304; // 4 MiB of one file, the end of it
static const auto PROGRAM_TIME = std::chrono::seconds(20);

extern char** environ;

namespace {

/** All that comes from a pipe until its end or the deadline; the end of it when it is long. */
std::string readAll(int nFd, std::chrono::steady_clock::time_point deadline, bool& bWhole)
{
    std::string strText;
    std::array<char, 65536> acBlock{};
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd entry{nFd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&entry, 1, static_cast<int>(left.count())) <= 0) {
            bWhole = false;
            return strText;
        }
        const ssize_t nRead = ::read(nFd, acBlock.data(), acBlock.size());
        if (nRead <= 0) {
            bWhole = true;
            return strText;
        }
        strText.append(acBlock.data(), static_cast<size_t>(nRead));
        strText.erase(0, strText.size() > MAX_TEXT ? strText.size() - MAX_TEXT : 0);
    }
}

/** @return 0, or the error number; nStatus as of waitpid(2), -1 when it was ended for its time */
int runProgram(const std::vector<std::string>& vecCommand, std::string& strOutput, int& nStatus)
{
    std::vector<char*> vecArgument;
    vecArgument.reserve(vecCommand.size() + 1);
    for (const std::string& strWord : vecCommand) {
        vecArgument.push_back(const_cast<char*>(strWord.c_str()));
    }
    vecArgument.push_back(nullptr);
    std::array<int, 2> anPipe{-1, -1};
    if (0 != ::pipe2(anPipe.data(), O_CLOEXEC)) {
        return errno;
    }
    const Descriptor readEnd(anPipe[0]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, anPipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, anPipe[1], STDERR_FILENO);
    pid_t nPid = -1;
    const int nError =
        ::posix_spawnp(&nPid, vecArgument[0], &actions, nullptr, vecArgument.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(anPipe[1]);
    if (0 != nError) {
        return nError;
    }
    bool bWhole = false;
    strOutput = readAll(readEnd.get(), std::chrono::steady_clock::now() + PROGRAM_TIME, bWhole);
    if (!bWhole) {
        ::kill(nPid, SIGKILL);
    }
    while (::waitpid(nPid, &nStatus, 0) < 0 && EINTR == errno) {
    }
    nStatus = bWhole ? nStatus : -1;
    return 0;
}

} // namespace

SupportFolder::SupportFolder()
{
    std::error_code ignored;
    std::string strTemplate =
        (std::filesystem::temp_directory_path(ignored) / "kestrel-support-XXXXXX").string();
    if (nullptr != ::mkdtemp(strTemplate.data())) {
        m_strPath = strTemplate;
    }
}

SupportFolder::~SupportFolder()
{
    std::error_code ignored;
    if (isMade()) {
        std::filesystem::remove_all(m_strPath, ignored);
    }
}

void SupportFolder::hide(const std::string& strSecret)
{
    if (!strSecret.empty()) {
        m_vecSecret.push_back(strSecret);
    }
}

std::string SupportFolder::clean(std::string strText) const
{
    for (const std::string& strSecret : m_vecSecret) {
        for (size_t uAt = strText.find(strSecret); std::string::npos != uAt;
             uAt = strText.find(strSecret, uAt)) {
            strText.replace(uAt, strSecret.size(), "***");
        }
    }
    return strText;
}

void SupportFolder::add(const std::string& strName, std::string strText)
{
    addBytes(strName, clean(std::move(strText)));
}

void SupportFolder::addBytes(const std::string& strName, const std::string& strBytes)
{
    std::ofstream file(m_strPath + "/" + strName, std::ios::binary);
    file << strBytes;
    file.close();
    if (!file) {
        miss(strName, strerror(errno));
    }
}

void SupportFolder::addConfiguration(const std::string& strName, const std::string& strPath)
{
    std::ifstream file(strPath);
    if (!file) {
        miss(strPath, strerror(errno));
        return;
    }
    const std::regex secret("^(\\s*[^=#]*(token|secret|password)[^=]*=\\s*).*$", std::regex::icase);
    std::string strText;
    for (std::string strLine; std::getline(file, strLine);) {
        strText += std::regex_replace(strLine, secret, "$1\"***\"") + "\n";
    }
    add(strName, strText);
}

void SupportFolder::addFile(const std::string& strName, const std::string& strPath)
{
    std::ifstream file(strPath, std::ios::binary | std::ios::ate);
    if (!file) {
        miss(strPath, strerror(errno));
        return;
    }
    const auto nSize = static_cast<size_t>(std::max<std::streamoff>(0, file.tellg()));
    file.seekg(static_cast<std::streamoff>(nSize > MAX_TEXT ? nSize - MAX_TEXT : 0));
    add(strName, {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()});
}

bool SupportFolder::addOutput(const std::string& strName,
                              const std::vector<std::string>& vecCommand)
{
    std::string strOutput;
    int nStatus = 0;
    const int nError = runProgram(vecCommand, strOutput, nStatus);
    std::string strCommand;
    for (const std::string& strWord : vecCommand) {
        strCommand += (strCommand.empty() ? "" : " ") + strWord;
    }
    if (0 != nError) {
        miss(strCommand, strerror(nError));
        return false;
    }
    add(strName, strOutput);
    if (0 != nStatus) {
        miss(strCommand, -1 == nStatus ? "took too long" : "failed; " + strName + " has its words");
    }
    return true;
}

void SupportFolder::miss(const std::string& strWhat, const std::string& strWhy)
{
    m_vecMissing.push_back(strWhat + ": " + strWhy);
}

bool SupportFolder::pack(const std::string& strArchive, std::string& strError)
{
    std::string strMissing;
    for (const std::string& strLine : m_vecMissing) {
        strMissing += strLine + "\n";
    }
    add("missing.txt", strMissing);
    const Descriptor archive(
        ::open(strArchive.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (archive.get() < 0) {
        strError = strArchive + ": " + strerror(errno);
        return false;
    }
    std::string strOutput;
    int nStatus = 0;
    const std::filesystem::path path = m_strPath;
    const int nError = runProgram(
        {"tar", "-czf", strArchive, "-C", path.parent_path().string(), path.filename().string()},
        strOutput, nStatus);
    if (0 != nError || 0 != nStatus) {
        strError = "tar: " + (0 != nError ? strerror(nError) : strOutput);
        ::unlink(strArchive.c_str());
        return false;
    }
    return true;
}
