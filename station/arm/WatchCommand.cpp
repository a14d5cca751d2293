// "kestrel-arm watch": what changes, as it changes, until Ctrl-C.
#include "WatchCommand.h"

#include "Output.h"
#include "StateText.h"

WatchCommand::WatchCommand(CLI::App& app)
    : StationCommand(app, "watch", "Tell what changes, until Ctrl-C.")
{
}

int WatchCommand::ask(const StationClient& client)
{
    const bool bJson = isJson();
    std::string strLast; // a state changes more often than its line does
    bool bPrinted = true;
    const StationAnswer answer =
        client.watch([&](const std::string& strName, const std::string& strData) {
            const nlohmann::json data = nlohmann::json::parse(strData, nullptr, false);
            if (bJson) {
                bPrinted = print(nlohmann::json{{"event", strName}, {"data", data}}.dump() + "\n");
                return bPrinted;
            }
            const std::string strLine =
                "journal" == strName ? entryToText(data) : stateToLine(data);
            bPrinted = strLine == strLast || print(strLine + "\n");
            strLast = "state" == strName ? strLine : strLast;
            return bPrinted;
        });
    if (!bPrinted) {
        return STATUS_UNUSABLE;
    }
    if (!answer.isGood()) {
        return refuse(answer, bJson);
    }
    complain(client.getUrl() + " has ended");
    return STATUS_NO_ANSWER;
}
