// The operator's files: kept, looked through, drawn.
#include "JobStore.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ApiProblem.h"
#include "CheckText.h"
#include "GrblLanguage.h"
#include "JobCheck.h"
#include "JobPicture.h"
#include "JobRestart.h"
#include "KestrelLanguage.h"
#include "WallTime.h"

static const char* const JOBS = "jobs";
static const char* const CHECKS = "checks";
static const char* const INCOMING = "incoming";
static const size_t MAX_NAME = 64;
static const size_t MAX_JOBS = 1000;

using nlohmann::json;

namespace {

/** Looks through one file at a time: it takes memory and a processor. */
class Turn
{
public:
    explicit Turn(std::atomic<bool>& bTaken) : m_bTaken(bTaken)
    {
        if (m_bTaken.exchange(true)) {
            throw ApiProblem("busy", "Another file is being looked through.");
        }
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn()
    {
        m_bTaken = false;
    }

private:
    std::atomic<bool>& m_bTaken;
};

/** @return false with errno */
bool readFile(const std::string& strPath, std::string& strText)
{
    FILE* const pFile = fopen(strPath.c_str(), "re");
    if (nullptr == pFile) {
        return false;
    }
    std::array<char, 65536> acBlock{};
    size_t uRead = 1;
    while (uRead > 0) {
        uRead = fread(acBlock.data(), 1, acBlock.size(), pFile);
        strText.append(acBlock.data(), uRead);
    }
    const bool bRead = 0 == ferror(pFile);
    fclose(pFile);
    return bRead;
}

bool writeFile(const std::string& strPath, const std::string& strText)
{
    const std::string strNew = strPath + ".new"; // no file's name: those have no such end
    FILE* const pFile = fopen(strNew.c_str(), "we");
    if (nullptr == pFile) {
        return false;
    }
    bool bWritten = strText.size() == fwrite(strText.data(), 1, strText.size(), pFile);
    bWritten = 0 == fclose(pFile) && bWritten;
    return bWritten && 0 == rename(strNew.c_str(), strPath.c_str());
}

std::unique_ptr<ILanguage> makeLanguage(const Configuration& configuration)
{
    if (configuration.bGrbl) {
        return std::make_unique<GrblLanguage>();
    }
    return std::make_unique<KestrelLanguage>();
}

/** What the result of a check depends on. */
std::string makeKey(const Configuration* pConfiguration)
{
    if (nullptr == pConfiguration) {
        return "";
    }
    const GuardLimits& limits = pConfiguration->limits;
    return json{pConfiguration->bGrbl, limits.minimum,       limits.maximum,   limits.dMaxFeed,
                limits.dMaxPower,      limits.dAcceleration, limits.dRapidFeed}
        .dump();
}

json summarize(const json& record)
{
    const json& check = record["check"];
    return {{"name", record["name"]},     {"size", check["size"]},
            {"sha256", check["sha256"]},  {"uploaded", record["uploaded"]},
            {"passes", check["passes"]},  {"lines", check["lines"]},
            {"seconds", check["seconds"]}};
}

json describe(const json& record)
{
    const json& check = record["check"];
    return {{"name", record["name"]},
            {"size", check["size"]},
            {"sha256", check["sha256"]},
            {"uploaded", record["uploaded"]},
            {"check", check}};
}

std::vector<std::string> listNames()
{
    std::vector<std::string> vecName;
    DIR* const pFolder = opendir(JOBS);
    while (nullptr != pFolder) {
        const dirent* const pEntry = readdir(pFolder);
        if (nullptr == pEntry) {
            break;
        }
        if (JobStore::isName(pEntry->d_name)) {
            vecName.emplace_back(pEntry->d_name);
        }
    }
    if (nullptr != pFolder) {
        closedir(pFolder);
    }
    std::sort(vecName.begin(), vecName.end());
    return vecName;
}

} // namespace

JobStore::Incoming::Incoming() : m_strPath(std::string(INCOMING) + "/XXXXXX")
{
    m_nFd = mkostemp(m_strPath.data(), O_CLOEXEC);
}

JobStore::Incoming::~Incoming()
{
    if (m_nFd >= 0) {
        ::close(m_nFd);
        (void)unlink(m_strPath.c_str()); // it may have been kept under its name
    }
}

bool JobStore::Incoming::write(const char* pData, size_t uLength)
{
    for (size_t uDone = 0; uDone < uLength && m_nFd >= 0;) {
        const ssize_t nWritten = ::write(m_nFd, pData + uDone, uLength - uDone);
        if (nWritten < 0 && EINTR != errno) {
            return false;
        }
        uDone += (nWritten > 0) ? static_cast<size_t>(nWritten) : 0;
    }
    return m_nFd >= 0;
}

int JobStore::Incoming::finish()
{
    return (m_nFd >= 0 && 0 == lseek(m_nFd, 0, SEEK_SET)) ? m_nFd : -1;
}

JobStore::JobStore(const Configuration* pConfiguration)
    : m_pConfiguration(pConfiguration), m_strKey(makeKey(pConfiguration))
{
    for (const char* const pFolder : {JOBS, CHECKS, INCOMING}) {
        (void)mkdir(pFolder, 0750); // there already, or each file tells that it cannot be kept
    }
}

bool JobStore::isName(const std::string& strName)
{
    const auto isLetter = [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
               '_' == c;
    };
    return !strName.empty() && strName.size() <= MAX_NAME && isLetter(strName[0]) &&
           std::all_of(strName.begin(), strName.end(),
                       [&](char c) { return isLetter(c) || '.' == c || '-' == c; });
}

std::string JobStore::getPath(const std::string& strName)
{
    return std::string(JOBS) + "/" + strName;
}

void JobStore::demandLimits() const
{
    if (nullptr == m_pConfiguration) {
        throw ApiProblem("no-limits", "The guard's configuration is not complete.");
    }
}

json JobStore::readRecord(const std::string& strName) const
{
    std::string strText;
    const MutexGuard guard(m_mtx);
    if (!isName(strName) || 0 != access(getPath(strName).c_str(), R_OK) ||
        !readFile(std::string(CHECKS) + "/" + strName + ".json", strText)) {
        throw ApiProblem("not-found", "There is no file \"" + strName + "\".");
    }
    const json record = json::parse(strText, nullptr, false);
    if (!record.is_object() || !record.contains("check")) {
        throw ApiProblem("not-found", "The check of \"" + strName + "\" was not written whole.");
    }
    return record;
}

json JobStore::list() const
{
    json jobs = json::array();
    for (const std::string& strName : listNames()) {
        try {
            jobs.push_back(summarize(readRecord(strName)));
        } catch (const ApiProblem&) {
            // Being kept or removed at this moment.
        }
    }
    return {{"jobs", jobs}};
}

json JobStore::get(const std::string& strName) const
{
    return describe(readRecord(strName));
}

json JobStore::look(const std::string& strName, const std::string& strText,
                    const std::string& strUploaded)
{
    const std::unique_ptr<ILanguage> pLanguage = makeLanguage(*m_pConfiguration);
    const JobCheck check(m_pConfiguration->limits, *pLanguage);
    CheckResult result;
    result.strFile = strName;
    result.report = check.check(strText, nullptr);
    json record = {{"name", strName},
                   {"uploaded", strUploaded},
                   {"key", m_strKey},
                   {"check", json::parse(toJson(result))}};
    const MutexGuard guard(m_mtx);
    if (!writeFile(std::string(CHECKS) + "/" + strName + ".json", record.dump())) {
        throw ApiProblem("no-space",
                         std::string("The check could not be kept: ") + strerror(errno));
    }
    return record;
}

json JobStore::add(const std::string& strName, bool bReplace, Incoming& incoming)
{
    demandLimits();
    const Turn turn(m_bLooking);
    if (!isName(strName)) {
        throw ApiProblem("bad-request", "No file may have this name.");
    }
    const bool bThere = 0 == access(getPath(strName).c_str(), F_OK);
    if (bThere && !bReplace) {
        throw ApiProblem("exists", "There is a file \"" + strName + "\".");
    }
    if (!bThere && listNames().size() >= MAX_JOBS) {
        throw ApiProblem("full", "There are as many files as may be.");
    }
    std::string strText;
    if (!readFile(incoming.getPath(), strText)) {
        throw ApiProblem("no-space", std::string("It could not be read again: ") + strerror(errno));
    }
    const json record = look(strName, strText, getWallTime()); // before it: none is without
    const MutexGuard guard(m_mtx);
    if (0 != rename(incoming.getPath().c_str(), getPath(strName).c_str())) {
        throw ApiProblem("no-space", std::string("It could not be kept: ") + strerror(errno));
    }
    return describe(record);
}

json JobStore::check(const std::string& strName)
{
    demandLimits();
    const Turn turn(m_bLooking);
    const json record = readRecord(strName);
    return describe(look(strName, read(strName), record["uploaded"]));
}

void JobStore::remove(const std::string& strName)
{
    (void)readRecord(strName); // throws without it
    const MutexGuard guard(m_mtx);
    (void)unlink(getPath(strName).c_str()); // gone, or it stays and is listed
    (void)unlink((std::string(CHECKS) + "/" + strName + ".json").c_str());
}

std::string JobStore::read(const std::string& strName) const
{
    std::string strText;
    if (!isName(strName) || !readFile(getPath(strName), strText)) {
        throw ApiProblem("not-found", "There is no file \"" + strName + "\".");
    }
    return strText;
}

std::string JobStore::draw(const std::string& strName)
{
    demandLimits();
    (void)readRecord(strName); // throws without it
    const Turn turn(m_bLooking);
    const std::unique_ptr<ILanguage> pLanguage = makeLanguage(*m_pConfiguration);
    JobCheck check(m_pConfiguration->limits, *pLanguage);
    JobPicture picture;
    check.onMove(
        [&picture](const GcodeMove& move, MOVE_BEAM_E eBeam) { picture.add(move, eBeam); });
    (void)check.check(read(strName), nullptr);
    return picture.draw(m_pConfiguration->limits);
}

RunnableJob JobStore::getRunnable(const std::string& strName, size_t uLine)
{
    demandLimits();
    json record = readRecord(strName);
    const Turn turn(m_bLooking);
    std::string strText = read(strName);
    if (record["key"] != m_strKey) {
        record = look(strName, strText, record["uploaded"]);
    }
    if (!record["check"]["passes"]) {
        throw ApiProblem("job-refused",
                         record["check"]["refused"].dump() + " places would be refused.");
    }
    RunnableJob runnable;
    runnable.job = describe(record);
    runnable.strText = std::move(strText);
    runnable.strSum = record["check"]["sha256"];
    runnable.dSeconds = record["check"]["seconds"];
    if (1 != uLine) {
        beginAt(uLine, runnable);
    }
    return runnable;
}

void JobStore::beginAt(size_t uLine, RunnableJob& runnable) const
{
    RestartedJob restarted = restartJob(runnable.strText, uLine);
    if (!restarted.strReason.empty()) {
        throw ApiProblem("restart", "It cannot begin at line " + std::to_string(uLine) + ": " +
                                        restarted.strReason + ".");
    }
    const std::unique_ptr<ILanguage> pLanguage = makeLanguage(*m_pConfiguration);
    const JobReport report =
        JobCheck(m_pConfiguration->limits, *pLanguage).check(restarted.strText, nullptr);
    if (!report.passes()) {
        throw ApiProblem("restart", "What would set it up would be refused.");
    }
    runnable.strText = std::move(restarted.strText);
    runnable.strSum = report.strSum;
    runnable.dSeconds = report.dSeconds;
    runnable.uLine = uLine;
    runnable.uAdded = restarted.uAdded;
}

json JobStore::describeRestart(const std::string& strName, const std::string& strSum,
                               size_t uThrough) const
{
    json restart = {{"line", nullptr}, {"unsure_from", nullptr}, {"reason", nullptr}};
    try {
        if (readRecord(strName)["check"]["sha256"] != strSum) {
            restart["reason"] = "the file of that name is another now";
            return restart;
        }
        const std::string strText = read(strName);
        const RestartedJob restarted = restartJob(strText, uThrough + 1);
        if (!restarted.strReason.empty()) {
            restart["reason"] = restarted.strReason;
            return restart;
        }
        restart["line"] = uThrough + 1;
        restart["unsure_from"] = findUnsure(strText, uThrough);
    } catch (const ApiProblem&) {
        restart["reason"] = "the file is not there any more";
    }
    return restart;
}
