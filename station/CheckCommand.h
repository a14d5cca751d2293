// "kestrel-arm check": looks through a job's file, without a machine.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

/** The command's options and what it does. Lives as long as the program's command line. */
class CheckCommand
{
public:
    static const int PASSES = 0;
    static const int REFUSED = 1;
    static const int FAILED = 2; // a file or the configuration cannot be read or written

    explicit CheckCommand(CLI::App& app);

    /** Prints to standard output, failures to standard error. @return the program's status */
    int run() const;

private:
    std::string m_strFile;
    std::string m_strConfiguration;
    std::string m_strMended;
    std::string m_strPicture;
    std::vector<double> m_vecStart{0, 0, 0};
    std::vector<std::string> m_vecSystem;
    bool m_bJson = false;
};
