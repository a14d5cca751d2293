// What kestrel-server says about itself.
#pragma once

/**
 * Answer "--help" or "--version" on standard output, when it is the only argument, and end the
 * process with status 0; return, without an effect, in every other case.
 */
void answerUsage(int argc, char** argv);
