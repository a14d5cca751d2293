// The print link's port under the fuzzer: what the service's calls meet instead of the kernel.
#pragma once

#include <string>

/**
 * The linker puts functions of FuzzPort.cpp in the places of the service's poll, select, read,
 * write, pthread_create and syscall. Nothing waits: what is not there now never comes. No thread is
 * created for the service, the target calls the thread's body itself; so an input does the same
 * each time.
 */
struct FuzzPort
{
    int nFd = -1;           // the service's; calls for others are the kernel's
    bool bNoThread = false; // pthread_create fails
    bool bOnThread = false; // the caller is to be taken for the service's thread

    std::string strPending;   // can be read
    bool bReadFails = false;  // the next time
    bool bWriteFails = false; // the next time

    std::string strFirstRead; // since beginStep(), without the answer to a lone line end
    std::string strFirstSent; // since then, without a lone line end; empty when it failed

    void beginStep();

    /** Nothing can be read, nothing fails. */
    void calm();

    bool bSendTried = false; // since beginStep()
    bool bCut = false;       // a write has failed: a lone line end is due before the next line
    bool bDropping = false;  // that line end is out, its answer is nobody's
};

extern FuzzPort g_port;
