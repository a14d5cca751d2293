// The station's configuration file.
#include "StationConfiguration.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include <toml++/toml.h>

#include "TomlFile.h"

namespace {

std::string takeText(const toml::node& node, const std::string& strKey)
{
    if (!node.is_string() || node.as_string()->get().empty()) {
        throw std::runtime_error(strKey + " is no text");
    }
    return node.as_string()->get();
}

std::vector<std::string> takeTexts(const toml::node& node, const std::string& strKey)
{
    if (!node.is_array()) {
        throw std::runtime_error(strKey + " is no list");
    }
    std::vector<std::string> vecText;
    for (const toml::node& each : *node.as_array()) {
        vecText.push_back(takeText(each, strKey));
    }
    return vecText;
}

int takePort(const toml::node& node, const std::string& strKey)
{
    const int64_t s64Port = node.is_integer() ? node.as_integer()->get() : 0;
    if (s64Port < 1 || s64Port > 65535) {
        throw std::runtime_error(strKey + " is no port");
    }
    return static_cast<int>(s64Port);
}

bool takeFlag(const toml::node& node, const std::string& strKey)
{
    if (!node.is_boolean()) {
        throw std::runtime_error(strKey + " is neither true nor false");
    }
    return node.as_boolean()->get();
}

void take(const std::string& strKey, const toml::node& node, StationConfiguration& configuration)
{
    if ("station.starts" == strKey) {
        configuration.bStarts = takeFlag(node, strKey);
    } else if ("station.folder" == strKey) {
        configuration.strFolder = takeText(node, strKey);
    } else if ("station.guard" == strKey) {
        configuration.strGuard = takeText(node, strKey);
    } else if ("station.open_measure" == strKey) {
        configuration.bOpenMeasure = takeFlag(node, strKey);
    } else if ("http.addresses" == strKey) {
        configuration.vecAddress = takeTexts(node, strKey);
    } else if ("http.port" == strKey) {
        configuration.nPort = takePort(node, strKey);
    } else if ("http.token" == strKey) {
        configuration.strTokenFile = takeText(node, strKey);
    } else if ("http.hosts" == strKey) {
        configuration.vecHost = takeTexts(node, strKey);
    } else if ("http.origins" == strKey) {
        configuration.vecOrigin = takeTexts(node, strKey);
    } else {
        throw std::runtime_error("unknown key " + strKey);
    }
}

} // namespace

bool readStationConfiguration(const std::string& strPath, StationConfiguration& configuration,
                              std::string& strError)
{
    configuration = {};
    return readToml(strPath, strError, [&configuration](const toml::table& file) {
        for (const auto& [section, node] : file) {
            const std::string strSection(section.str());
            if (!node.is_table()) {
                throw std::runtime_error("unknown key " + strSection);
            }
            for (const auto& [key, value] : *node.as_table()) {
                take(strSection + "." + std::string(key.str()), value, configuration);
            }
        }
    });
}

bool readToken(const std::string& strPath, std::string& strToken, std::string& strError)
{
    errno = 0;
    std::ifstream file(strPath);
    if (!std::getline(file, strToken)) {
        strError = strPath + ": " + ((0 != errno) ? strerror(errno) : "no token in it");
        return false;
    }
    const bool bGood =
        strToken.size() >= 16 && strToken.size() <= 256 &&
        std::all_of(strToken.begin(), strToken.end(), [](char c) { return c > ' ' && c <= '~'; });
    if (!bGood) {
        strError = strPath + ": a token is a line of 16 to 256 characters without a blank";
    }
    return bGood;
}
