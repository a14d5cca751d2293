// Runs a program of the tests and keeps what it printed and how it ended.
#pragma once

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

/** How a program ended; exactly one of the two is not -1. */
struct ChildResult
{
    int nStatus = -1; // exit status
    int nSignal = -1; // the signal that ended it
    std::string strOutput;
    std::string strError;
};

/** A running program, its input open. Killed and waited for at the latest with the object. */
class ChildProgram
{
public:
    explicit ChildProgram(const std::vector<std::string>& vecArgument)
    {
        int anIn[2];
        int anOut[2];
        int anErr[2];
        if (0 != pipe2(anIn, O_CLOEXEC) || 0 != pipe2(anOut, O_CLOEXEC) ||
            0 != pipe2(anErr, O_CLOEXEC)) {
            return;
        }
        std::vector<char*> vecPointer;
        for (const std::string& strArgument : vecArgument) {
            vecPointer.push_back(const_cast<char*>(strArgument.c_str()));
        }
        vecPointer.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, anIn[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, anOut[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, anErr[1], STDERR_FILENO);
        // A child that is gone must not end the test that writes to it; the child itself starts
        // with the default.
        signal(SIGPIPE, SIG_IGN);
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
        if (0 !=
            posix_spawn(&m_pid, vecPointer[0], &actions, &attributes, vecPointer.data(), environ)) {
            m_pid = -1;
        }
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
        ::close(anIn[0]);
        ::close(anOut[1]);
        ::close(anErr[1]);
        m_nIn = anIn[1];
        m_nOut = anOut[0];
        m_nErr = anErr[0];
    }
    ChildProgram(const ChildProgram&) = delete;
    ChildProgram& operator=(const ChildProgram&) = delete;
    ~ChildProgram()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            (void)wait();
        }
        closeInput();
        ::close(m_nOut);
        ::close(m_nErr);
    }

    pid_t pid() const
    {
        return m_pid;
    }

    void write(const std::string& strText)
    {
        (void)!::write(m_nIn, strText.data(), strText.size());
    }

    void closeInput()
    {
        if (m_nIn >= 0) {
            ::close(m_nIn);
            m_nIn = -1;
        }
    }

    /** Read on until standard output holds the text. @return false when it ended without */
    bool waitForOutput(const std::string& strText)
    {
        while (std::string::npos == m_result.strOutput.find(strText)) {
            if (!readMore()) {
                return false;
            }
        }
        return true;
    }

    /** What standard output had so far. */
    const std::string& output() const
    {
        return m_result.strOutput;
    }

    /** Read until its outputs are closed, and take its status. Killed after 60 s. */
    ChildResult wait()
    {
        while (readMore()) {
        }
        int nStatus = 0;
        if (m_pid > 0 && m_pid == waitpid(m_pid, &nStatus, 0)) {
            m_result.nStatus = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
            m_result.nSignal = WIFSIGNALED(nStatus) ? WTERMSIG(nStatus) : -1;
        }
        m_pid = -1;
        return m_result;
    }

private:
    bool readMore()
    {
        pollfd aEntry[2] = {{m_bOutOpen ? m_nOut : -1, POLLIN, 0},
                            {m_bErrOpen ? m_nErr : -1, POLLIN, 0}};
        if (!m_bOutOpen && !m_bErrOpen) {
            return false;
        }
        if (poll(aEntry, 2, 60000) <= 0) { // a deadline that only ends a failing run
            ::kill(m_pid, SIGKILL);
            return false;
        }
        if (0 != aEntry[0].revents) {
            m_bOutOpen = readFrom(m_nOut, m_result.strOutput);
        }
        if (0 != aEntry[1].revents) {
            m_bErrOpen = readFrom(m_nErr, m_result.strError);
        }
        return true;
    }

    static bool readFrom(int nFd, std::string& strText)
    {
        char acBuffer[4096];
        const ssize_t nRead = ::read(nFd, acBuffer, sizeof(acBuffer));
        if (nRead > 0) {
            strText.append(acBuffer, static_cast<size_t>(nRead));
        }
        return nRead > 0 || (nRead < 0 && EINTR == errno);
    }

    pid_t m_pid = -1;
    int m_nIn = -1;
    int m_nOut = -1;
    int m_nErr = -1;
    bool m_bOutOpen = true;
    bool m_bErrOpen = true;
    ChildResult m_result;
};

/** Run a program to its end, with the given standard input. */
inline ChildResult runChild(const std::vector<std::string>& vecArgument,
                            const std::string& strInput = "")
{
    ChildProgram program(vecArgument);
    program.write(strInput);
    program.closeInput();
    return program.wait();
}
