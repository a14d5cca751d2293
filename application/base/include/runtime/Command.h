// Running shell commands.
#pragma once

#include <cstddef>

class Time;

/**
 * Run a command by the shell and wait for it.
 * @return true only when it ran and exited with status 0; false always while SIGCHLD is ignored
 */
bool runCommand(const char* pCommand);

/**
 * Run a command by the shell and keep the first bytes of its standard output.
 * @param pOutput  gets at most uSize - 1 bytes and a terminating zero
 * @return true when the command could be run and its output read
 */
bool captureCommand(const char* pCommand, char* pOutput, size_t uSize);

/**
 * Run a command by the shell, from a temporary script, and kill it (signal 9) once the budget is
 * used up; looks every 10 ms.
 * @return the exit status; -1 for a null command; 255 when the script can't be written, for a
 * failed fork, for a killed command, and, as the kernel keeps no status then, while SIGCHLD is
 *         ignored
 */
int runCommandTimed(const char* pCommand, const Time& budget);
