// "kestrel-arm firmware": sends the controller its firmware, through the guard.
#include "FirmwareCommand.h"

#include <array>
#include <chrono>
#include <cmath>
#include <string>
#include <thread>

#include <unistd.h>

#include <sha256.h>

#include "InputFile.h"
#include "JsonFields.h"
#include "Output.h"

static const auto LOOK_EVERY = std::chrono::milliseconds(250);
static const auto END_TOLD_WITHIN = std::chrono::seconds(5); // by the guard, once nothing passes
static const char* const CLEAR_LINE = "\r\x1b[K";

namespace {

std::string sumOf(const std::string& strImage)
{
    std::array<char, SHA256_DIGEST_STRING_LENGTH> acSum{};
    return SHA256_Data(reinterpret_cast<const uint8_t*>(strImage.data()), strImage.size(),
                       acSum.data());
}

/** "taken", "stopped" or "refused", as the guard has told; empty before. */
std::string resultOf(const nlohmann::json& entries)
{
    const std::string strBegin = "firmware ";
    for (const nlohmann::json& entry : entries) {
        const std::string strText = textOf(entry, "text");
        if ("guard" != textOf(entry, "source") || 0 != strText.rfind(strBegin, 0)) {
            continue;
        }
        const size_t uEnd = strText.find(' ', strBegin.size());
        const std::string strWord = strText.substr(strBegin.size(), uEnd - strBegin.size());
        if ("taken" == strWord || "stopped" == strWord || "refused" == strWord) {
            return strWord;
        }
    }
    return "";
}

} // namespace

FirmwareCommand::FirmwareCommand(CLI::App& app)
    : StationCommand(app, "firmware", "Send the controller its firmware, at level dark.")
{
    getCommand().add_option("FILE", m_strFile, "the image")->required();
}

int FirmwareCommand::ask(const StationClient& client)
{
    std::string strImage;
    if (!readInputFile(m_strFile, strImage)) {
        return STATUS_UNUSABLE;
    }
    const StationAnswer journal = client.get("/journal?limit=1");
    if (!journal.isGood()) {
        return refuse(journal, isJson());
    }
    int64_t s64LastEntry = 0;
    for (const nlohmann::json& entry : fieldOf(journal.json, "entries")) {
        s64LastEntry = std::llround(numberOf(entry, "id"));
    }
    const StationAnswer begun = client.upload("/firmware?size=" + std::to_string(strImage.size()) +
                                                  "&sha256=" + sumOf(strImage),
                                              strImage);
    return begun.isGood() ? follow(client, s64LastEntry, begun.json) : refuse(begun, isJson());
}

int FirmwareCommand::follow(const StationClient& client, int64_t s64LastEntry,
                            const nlohmann::json& begun)
{
    const std::string strSize = fieldOf(begun, "size").dump();
    const bool bShow = !isJson() && 1 == ::isatty(STDOUT_FILENO);
    auto passing = std::chrono::steady_clock::now(); // when it was last seen to pass
    std::string strResult;
    while (strResult.empty() && std::chrono::steady_clock::now() - passing < END_TOLD_WITHIN) {
        const StationAnswer state = client.get("/state");
        const StationAnswer journal =
            client.get("/journal?limit=1000&after=" + std::to_string(s64LastEntry));
        if (!state.isGood() || !journal.isGood()) {
            return refuse(state.isGood() ? journal : state, isJson());
        }
        const nlohmann::json taken = fieldOf(fieldOf(state.json, "guard"), "firmware");
        if (!taken.is_null()) {
            passing = std::chrono::steady_clock::now();
            if (bShow) {
                (void)print(CLEAR_LINE + taken.dump() + " of " + strSize + " bytes");
            }
        }
        strResult = resultOf(fieldOf(journal.json, "entries"));
        if (strResult.empty()) {
            std::this_thread::sleep_for(LOOK_EVERY);
        }
    }
    if (strResult.empty()) {
        strResult = "not known";
    }
    nlohmann::json told = begun;
    told["result"] = strResult;
    const std::string strLine = "firmware " + strResult + ", " + strSize + " bytes";
    if (!print(isJson() ? told.dump() + "\n" : (bShow ? CLEAR_LINE : "") + strLine + "\n")) {
        return STATUS_UNUSABLE;
    }
    return "taken" == strResult ? STATUS_DONE : STATUS_REFUSED;
}
