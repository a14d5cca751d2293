// A configuration file in TOML.
#pragma once

#include <exception>
#include <string>

#include <toml++/toml.h>

/**
 * Parse a file and hand it on. Blocks for the file.
 * @param take      a function of the whole table; throws std::runtime_error with what is wrong
 * @param strError  one line: "PATH:LINE: ..." for what is no TOML, "PATH: ..." for the rest
 * @return false with an error
 */
template <class F> bool readToml(const std::string& strPath, std::string& strError, F take)
{
    try {
        take(toml::parse_file(strPath));
        return true;
    } catch (const toml::parse_error& error) {
        strError = strPath + ":" + std::to_string(error.source().begin.line) + ": " +
                   std::string(error.description());
    } catch (const std::exception& error) {
        strError = strPath + ": " + error.what();
    }
    return false;
}
