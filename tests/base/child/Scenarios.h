// What the child program of the base tests can be asked to do.
#pragma once

/** argv holds the scenario's own arguments from argv[2] on; the result is the exit status. */
int runUnlock(int argc, char** argv);
int runStamp(int argc, char** argv);
int runNiceRefused(int argc, char** argv);
int runExitOrder(int argc, char** argv);
int runTermination(int argc, char** argv);
int runTerminationAddress(int argc, char** argv);
int runTerminationAgain(int argc, char** argv);
int runTerminationEnd(int argc, char** argv);
int runTerminationErrno(int argc, char** argv);
int runTerminationLate(int argc, char** argv);
int runTerminationRestartFails(int argc, char** argv);
int runTerminationLocked(int argc, char** argv);
int runTerminationRestart(int argc, char** argv);
int runStack(int argc, char** argv);
int runDaemonise(int argc, char** argv);
int runRestart(int argc, char** argv);
int runRestartFails(int argc, char** argv);
int runSinks(int argc, char** argv);
int runConsole(int argc, char** argv);
int runConsoleVerdict(int argc, char** argv);
int runLayout(int argc, char** argv);
int runServer(int argc, char** argv);
