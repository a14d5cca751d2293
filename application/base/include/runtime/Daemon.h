// Putting the process into the background, and restarting it.
#pragma once

class Time;

/**
 * Go on as a daemon: a new session without a terminal, in "/", file-mode mask 0, the three standard
 * descriptors on "/dev/null". Returns in the daemon only; the calling process exits with 0.
 *
 * Call it before any thread exists: threads do not follow. A failure prints "fork() failed\n" or
 * "setsid() failed\n" on standard error and exits with 1, or "chdir(/) failed\n" and 0.
 */
void daemonise();

/**
 * Have this process killed (signal 9) after the delay, and the program started again 3 s later with
 * the same arguments. Returns at once; async-signal-safe.
 *
 * Deliberate: a process that has ended by itself before the delay is over is killed by number all
 * the same. A failure prints "fork() failed\n" or "setsid() failed\n" on standard error and exits
 * the process it happens in with 1.
 *
 * @param argv  the program's argument vector, with the program in front (searched in PATH when it
 *              names no directory) and a null pointer at its end
 */
void restartProcess(char* const* argv, const Time& delay);
