// "kestrel-arm journal": what has happened.
#include "JournalCommand.h"

#include "JsonFields.h"
#include "Output.h"
#include "StateText.h"

JournalCommand::JournalCommand(CLI::App& app)
    : StationCommand(app, "journal", "Tell what has happened, the oldest first.")
{
    getCommand()
        .add_option("--after", m_s64After, "only entries behind this one")
        ->check(CLI::NonNegativeNumber);
    getCommand()
        .add_option("--limit", m_nLimit, "at most so many, the newest")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
}

int JournalCommand::ask(const StationClient& client)
{
    const StationAnswer answer = client.get("/journal?after=" + std::to_string(m_s64After) +
                                            "&limit=" + std::to_string(m_nLimit));
    if (!answer.isGood()) {
        return refuse(answer, isJson());
    }
    std::string strText;
    if (isJson()) {
        strText = answer.json.dump() + "\n";
    } else {
        for (const nlohmann::json& entry : fieldOf(answer.json, "entries")) {
            strText += entryToText(entry) + "\n";
        }
    }
    return print(strText) ? STATUS_DONE : STATUS_UNUSABLE;
}
