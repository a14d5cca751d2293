// "kestrel-arm run": uploads a job, starts it and stays with it to its end.
#include "RunCommand.h"

#include <cctype>

#include "InputFile.h"
#include "JobMinder.h"
#include "JsonFields.h"
#include "Output.h"

static const size_t MAX_NAME = 64; // of a job at the station
static const int START_MS = 60000; // the file is looked through once more

/** The findings of a check that the station made. */
static std::string findingsToText(const std::string& strFile, const nlohmann::json& check)
{
    std::string strText;
    for (const nlohmann::json& finding : fieldOf(check, "findings")) {
        const std::string strLine = fieldOf(finding, "line").dump();
        strText += strFile;
        if ("0" != strLine) {
            strText += ":" + strLine;
        }
        strText += ": " + textOf(finding, "reason") + "\n";
    }
    return strText;
}

RunCommand::RunCommand(CLI::App& app)
    : StationCommand(app, "run", "Run a job: space pauses, s stops, Ctrl-C turns the beam off.")
{
    getCommand().add_option("FILE", m_strFile, "the job")->required();
    getCommand().add_option("--name", m_strName, "its name at the station; the file's unless told");
    getCommand().add_flag("--unattended", m_bUnattended, "go on without pictures");
    getCommand()
        .add_option("--line", m_nLine, "begin at this line of it")
        ->check(CLI::PositiveNumber);
    getOptions().addGuard(getCommand());
}

std::string RunCommand::getName() const
{
    std::string strName =
        m_strName.empty() ? m_strFile.substr(m_strFile.rfind('/') + 1) : m_strName;
    for (char& c : strName) {
        const bool bPlain = '\0' == (c & '\x80') && 0 != isalnum(c);
        c = bPlain || '.' == c || '-' == c ? c : '_';
    }
    if (!strName.empty() && ('.' == strName[0] || '-' == strName[0])) {
        strName[0] = '_';
    }
    return strName.substr(0, MAX_NAME);
}

int RunCommand::ask(const StationClient& client)
{
    std::string strText;
    if (!readInputFile(m_strFile, strText)) {
        return STATUS_UNUSABLE;
    }
    const std::string strName = getName();
    const StationAnswer job = client.upload("/jobs?name=" + strName + "&replace=true", strText);
    if (!job.isGood()) {
        return refuse(job, isJson());
    }
    const nlohmann::json check = fieldOf(job.json, "check");
    if (true != fieldOf(check, "passes")) {
        (void)print(isJson() ? job.json.dump() + "\n" : findingsToText(m_strFile, check));
        complain(m_strFile + " does not pass; \"kestrel-arm check --mend\" may help");
        return STATUS_REFUSED;
    }

    JobMinder::blockSignals();
    nlohmann::json start = {{"unattended", m_bUnattended}};
    if (m_nLine > 0) {
        start["line"] = m_nLine;
    }
    const StationAnswer started = client.post("/jobs/" + strName + "/start", start, START_MS);
    if (!started.isGood()) {
        return refuse(started, isJson());
    }
    JobMinder run(client, getOptions().makeBeamOff(), started.json, isJson());
    return run.run();
}
