// What kestrel-arm's status tells.
#pragma once

/** The same for every command; docs/station.md has the table. */
enum EXIT_STATUS_E
{
    STATUS_DONE = 0,
    STATUS_REFUSED =
        1, // the station, the guard or the check said no, or a job did not end by itself
    STATUS_UNUSABLE = 2, // command line, file, token or configuration
    STATUS_NO_ANSWER = 3 // nobody answers
};
