// "kestrel-arm support": one archive with what somebody who helps wants to know.
#include "SupportCommand.h"

#include <array>
#include <ctime>
#include <filesystem>

#include "Output.h"
#include "SupportFolder.h"

static const int CAMERA_MS = 5000;
static const char* const LOG_FOLDERS[] = {"/var/log/kestrel-station", "/var/log/kestrel-server",
                                          "/tmp"};
static const char* const LOG_NAME = "usb-camera.log.";

namespace {

std::string defaultName()
{
    const time_t now = time(nullptr);
    tm utc{};
    gmtime_r(&now, &utc);
    std::array<char, 64> acName{};
    (void)strftime(acName.data(), acName.size(), "kestrel-support-%Y%m%d-%H%M%S.tar.gz", &utc);
    return acName.data();
}

void addStation(const StationClient& client, SupportFolder& folder)
{
    const auto add = [&](const char* pName, const char* pPath) {
        const StationAnswer answer = client.get(pPath);
        if (answer.isGood()) {
            folder.add(pName, answer.strBody);
        } else {
            folder.miss(pPath, answer.strError);
        }
    };
    add("state.json", "/state");
    add("jobs.json", "/jobs");
    add("journal.json", "/journal?limit=1000");
    add("metrics.txt", "/metrics");
}

/** The camera service beside the station: behind the same proxy, or on the station's machine. */
std::string cameraOf(const StationClient& client)
{
    const std::string strBelow = "/arm"; // where the proxy has put the station
    std::string strUrl = client.getUrl();
    strUrl.erase(strUrl.find_last_not_of('/') + 1);
    if (strUrl.size() > strBelow.size() &&
        0 == strUrl.compare(strUrl.size() - strBelow.size(), strBelow.size(), strBelow)) {
        return strUrl.substr(0, strUrl.size() - strBelow.size());
    }
    return "http://" + client.getHost() + ":8329";
}

void addSnapshot(const StationClient& client, SupportFolder& folder)
{
    const StationClient camera(cameraOf(client), "");
    const StationAnswer answer = camera.get("/snap?filename=kestrel-support.jpg", CAMERA_MS);
    if (answer.isGood()) {
        folder.addBytes("snapshot.jpg", answer.strBody);
    } else {
        folder.miss("snapshot", answer.strError);
    }
}

void addLogs(SupportFolder& folder)
{
    bool bFound = false;
    for (const char* const pFolder : LOG_FOLDERS) {
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator(pFolder, ignored)) {
            const std::string strName = entry.path().filename().string();
            if (0 == strName.rfind(LOG_NAME, 0)) {
                folder.addFile(strName, entry.path().string());
                bFound = true;
            }
        }
    }
    if (!bFound) {
        folder.miss("log", "not found");
    }
}

} // namespace

SupportCommand::SupportCommand(CLI::App& app)
    : m_pCommand(app.add_subcommand("support", "Gather versions, configuration without secrets, "
                                               "journal, logs and a picture in an archive.")),
      m_options(*m_pCommand)
{
    m_pCommand->add_option("FILE", m_strOut, "the archive; a name with the time unless told");
    m_pCommand->add_option("--configuration", m_vecConfiguration, "a program's configuration")
        ->allow_extra_args(false)
        ->capture_default_str();
}

int SupportCommand::run()
{
    const std::string strOut = m_strOut.empty() ? defaultName() : m_strOut;
    SupportFolder folder;
    if (!folder.isMade()) {
        complain("no temporary folder");
        return STATUS_UNUSABLE;
    }
    const auto pClient = m_options.makeClient();
    if (nullptr == pClient) {
        folder.miss("station", "no token");
    } else {
        folder.hide(pClient->getToken());
        addStation(*pClient, folder);
        addSnapshot(*pClient, folder);
    }
    folder.add("version-arm.txt", std::string("kestrel-arm ") + KESTREL_VERSION + "\n");
    for (const char* const pProgram : {"kestrel-guard", "kestrel-server", "kestrel-station"}) {
        (void)folder.addOutput(std::string("version-") + (pProgram + 8) + ".txt",
                               {pProgram, "--version"});
    }
    (void)folder.addOutput("uname.txt", {"uname", "-a"});
    (void)folder.addOutput("dmesg.txt", {"dmesg"});
    if (!folder.addOutput("journal.txt",
                          {"journalctl", "--no-pager", "-n", "5000", "-u", "kestrel-guard", "-u",
                           "kestrel-server", "-u", "kestrel-station"})) {
        (void)folder.addOutput("journal.txt", {"logread"}); // of a board; missed otherwise
    }
    for (const std::string& strPath : m_vecConfiguration) {
        folder.addConfiguration(std::filesystem::path(strPath).filename().string(), strPath);
    }
    addLogs(folder);

    std::string strError;
    const std::vector<std::string> vecMissing = folder.getMissing();
    if (!folder.pack(strOut, strError)) {
        complain(strError);
        return STATUS_UNUSABLE;
    }
    if (!m_options.isJson() && !vecMissing.empty()) {
        complain("not in it, as its missing.txt tells: " + std::to_string(vecMissing.size()));
    }
    const std::string strText =
        m_options.isJson() ? nlohmann::json{{"file", strOut}, {"missing", vecMissing}}.dump()
                           : strOut;
    return print(strText + "\n") ? STATUS_DONE : STATUS_UNUSABLE;
}
