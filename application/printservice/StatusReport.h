// How the rest of the system hears of the controller's status.
#pragma once

/**
 * Publish a StatusReportEvent for the status codes 1 to 4 ("Wx01" to "Wx04"); nothing happens for
 * others. Any thread; the subscribers run on it.
 */
void reportStatus(int nCode);
