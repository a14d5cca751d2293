// What the check of a job tells, for people and for programs.
#include "CheckText.h"

#include <array>
#include <cmath>
#include <cstdio>

#include <nlohmann/json.hpp>

static const size_t SHOWN = 20; // findings, to people

namespace {

/** Printable ASCII; other bytes as "\xHH". */
std::string escape(const std::string& strText)
{
    std::string strResult;
    for (const char c : strText) {
        if (c >= ' ' && c <= '~') {
            strResult += c;
        } else {
            std::array<char, 8> acByte{};
            snprintf(acByte.data(), acByte.size(), "\\x%02X", static_cast<unsigned char>(c));
            strResult += acByte.data();
        }
    }
    return strResult;
}

std::string fixed(double dValue, int nDecimals)
{
    std::array<char, 400> acText{}; // room for any double
    snprintf(acText.data(), acText.size(), "%.*f", nDecimals, dValue);
    return acText.data();
}

std::string span(const JobReport& report, size_t uAxis)
{
    return std::string(1, static_cast<char>('X' + uAxis)) + " " + fixed(report.minimum[uAxis], 3) +
           " to " + fixed(report.maximum[uAxis], 3);
}

std::string describe(const JobFinding& finding)
{
    std::string strText = finding.bRefused ? "refused: " : "note: ";
    strText += finding.pReason;
    strText += finding.bMendable ? " (can be mended)" : "";
    return strText + (finding.strText.empty() ? "" : ": " + escape(finding.strText));
}

std::string listFindings(const CheckResult& result)
{
    const JobReport& report = result.report;
    std::string strText;
    size_t uShown = 0;
    for (const JobFinding& finding : report.vecFinding) {
        if (SHOWN == uShown++) {
            break;
        }
        strText +=
            result.strFile + ":" + std::to_string(finding.uLine) + ": " + describe(finding) + "\n";
    }
    size_t uAll = 0;
    std::string strReasons;
    for (const auto& [strReason, uCount] : report.mapReason) {
        strReasons += (strReasons.empty() ? "" : ", ") + strReason + " " + std::to_string(uCount);
        uAll += uCount;
    }
    return strText + (uAll > SHOWN ? "all findings: " + strReasons + "\n" : "");
}

double round3(double dValue)
{
    return std::round(dValue * 1000) / 1000;
}

nlohmann::json toArray(const MachinePoint& point)
{
    return {round3(point[0]), round3(point[1]), round3(point[2])};
}

} // namespace

std::string toText(const CheckResult& result)
{
    const JobReport& report = result.report;
    std::string strText = listFindings(result);
    strText += "size        " + std::to_string(report.uSize) + " bytes, " +
               std::to_string(report.uLines) + " lines\n";
    strText += "SHA-256     " + report.strSum + "\n";
    strText +=
        "box         " +
        (report.bMoves ? span(report, 0) + ", " + span(report, 1) + ", " + span(report, 2) + " mm"
                       : "nothing moves") +
        "\n";
    strText += "path        " + fixed(report.dPath, 1) + " mm, burning " + fixed(report.dBurn, 1) +
               " mm, rapid with the beam switched on " + fixed(report.dLitTravel, 1) + " mm\n";
    strText += "at most     feed " + fixed(report.dMaxFeed, 0) + " mm/min, power " +
               fixed(report.dMaxPower, 0) + "\n";
    strText += "duration    " + fixed(report.dSeconds, 0) + " s\n";
    if (!result.strMendedFile.empty()) {
        strText += "mended      " + result.strMendedFile +
                   (result.mended.passes() ? ": passes" : ": refused") + ", SHA-256 " +
                   result.mended.strSum + "\n";
    }
    return strText + result.strFile +
           (report.passes() ? ": passes\n"
                            : ": refused, " + std::to_string(report.uRefused) + " places, " +
                                  std::to_string(report.uMendable) + " can be mended\n");
}

std::string toJson(const CheckResult& result)
{
    const JobReport& report = result.report;
    nlohmann::json findings = nlohmann::json::array();
    for (const JobFinding& finding : report.vecFinding) {
        findings.push_back({{"line", finding.uLine},
                            {"reason", finding.pReason},
                            {"refused", finding.bRefused},
                            {"mendable", finding.bMendable},
                            {"text", escape(finding.strText)}});
    }
    nlohmann::json json = {{"file", result.strFile},
                           {"passes", report.passes()},
                           {"size", report.uSize},
                           {"lines", report.uLines},
                           {"sha256", report.strSum},
                           {"refused", report.uRefused},
                           {"mendable", report.uMendable},
                           {"reasons", report.mapReason},
                           {"findings", findings},
                           {"path_mm", round3(report.dPath)},
                           {"burn_mm", round3(report.dBurn)},
                           {"lit_travel_mm", round3(report.dLitTravel)},
                           {"max_feed", round3(report.dMaxFeed)},
                           {"max_power", round3(report.dMaxPower)},
                           {"seconds", round3(report.dSeconds)}};
    if (report.bMoves) {
        json["box"] = {{"min", toArray(report.minimum)}, {"max", toArray(report.maximum)}};
    }
    if (!result.strMendedFile.empty()) {
        json["mended"] = {{"file", result.strMendedFile},
                          {"passes", result.mended.passes()},
                          {"refused", result.mended.uRefused},
                          {"sha256", result.mended.strSum}};
    }
    // A file's name may have any bytes.
    return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}
