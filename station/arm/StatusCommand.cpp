// "kestrel-arm status": what the station knows.
#include "StatusCommand.h"

#include "Output.h"
#include "StateText.h"

StatusCommand::StatusCommand(CLI::App& app)
    : StationCommand(app, "status", "Tell what the station knows.")
{
}

int StatusCommand::ask(const StationClient& client)
{
    const StationAnswer answer = client.get("/state");
    if (!answer.isGood()) {
        return refuse(answer, isJson());
    }
    return print(isJson() ? answer.json.dump() + "\n" : stateToText(answer.json)) ? STATUS_DONE
                                                                                  : STATUS_UNUSABLE;
}
