// "kestrel-arm run": uploads a job, starts it and stays with it to its end.
#pragma once

#include <string>

#include "StationCommand.h"

class RunCommand : public StationCommand
{
public:
    explicit RunCommand(CLI::App& app);

protected:
    int ask(const StationClient& client) override;

private:
    std::string getName() const;

    std::string m_strFile;
    std::string m_strName;
    bool m_bUnattended = false;
    int m_nLine = 0; // to begin at; 0: the beginning
};
