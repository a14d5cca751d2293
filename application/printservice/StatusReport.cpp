// How the rest of the system hears of the controller's status.
#include "StatusReport.h"

#include "EventBus.h"
#include "StatusReportEvent.h"

static const char* const REPORTS[] = {"Wx01", "Wx02", "Wx03", "Wx04"};

void reportStatus(int nCode)
{
    if (nCode < 1 || nCode > 4) {
        return;
    }
    StatusReportEvent event(REPORTS[nCode - 1]);
    EventBus<StatusReportEvent>::publish(event);
}
