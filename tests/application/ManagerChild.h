// A program with a module manager and modules that do as they are told.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "ModuleManager.h"
#include "Pattern.h"
#include "ScratchFolder.h"

inline std::vector<std::string> program(const std::vector<std::string>& vecScript)
{
    std::vector<std::string> vecArgument{"/usr/bin/env", "-u", "TERM"};
    vecArgument.insert(vecArgument.end(), vecScript.begin(), vecScript.end());
    vecArgument.emplace_back(MANAGER_CHILD);
    return vecArgument;
}

/** Without the resets of the console's colour and without the lines of threads. */
inline std::string plain(const std::string& strOutput)
{
    const std::string strText = replacePattern(strOutput, "\033\\[m", "");
    return replacePattern(strText, "\\[info \\] \\[Thread[^\n]*\n", "");
}

inline ChildResult run(const std::vector<std::string>& vecScript, const std::string& strInput = "")
{
    ChildResult result = runChild(program(vecScript), strInput);
    result.strOutput = plain(result.strOutput);
    return result;
}

inline std::string logged(const char* pFunction, const char* pText)
{
    return std::string("[debug] [ModuleManager.cpp ] [") + pFunction + "] " + pText;
}

inline std::string up(const char* pModule, const char* pTyped)
{
    const std::string strTyped = pTyped;
    return logged("initModule", (strTyped + " init ...\n").c_str()) + pModule + " init\n" +
           logged("initModule", (strTyped + " running ...\n").c_str()) + pModule + " start\n";
}

inline std::string down(const char* pModule, const char* pTyped)
{
    const std::string strTyped = pTyped;
    return logged("moduleUnInitialize", (strTyped + " stop ...\n").c_str()) + pModule + " stop\n" +
           logged("moduleUnInitialize", (strTyped + " uninit ...\n").c_str()) + pModule +
           " uninit\n";
}

const std::string SYSTEM_UP = up("SystemModule", "12SystemModule");
const std::string SYSTEM_DOWN = down("SystemModule", "12SystemModule");
const std::string COMMUCATION_UP = up("CommucationModule", "17CommucationModule");
const std::string COMMUCATION_DOWN = down("CommucationModule", "17CommucationModule");
const std::string WHOLE_LIFE = SYSTEM_UP + COMMUCATION_UP + "up 0\nloop 0\n" + COMMUCATION_DOWN +
                               SYSTEM_DOWN + "down 0\nstatus 0\n";

/** @return the id of a process's thread of this name, 0 when it has none */
inline pid_t threadOf(pid_t pid, const char* pName)
{
    const std::string strTasks = "/proc/" + std::to_string(pid) + "/task";
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(strTasks, ignored)) {
        std::string strName;
        std::getline(std::ifstream(entry.path() / "comm"), strName);
        if (pName == strName) {
            return atoi(entry.path().filename().c_str());
        }
    }
    return 0;
}

inline bool hasThread(pid_t pid, const char* pName)
{
    return 0 != threadOf(pid, pName);
}

/** What the console does with its input, between the start and the end of the service. */
inline std::string console(const std::string& strInput)
{
    const ChildResult result = run({"CONSOLE=1"}, strInput);
    EXPECT_EQ(0, result.nStatus);
    const std::string strBefore = SYSTEM_UP;
    EXPECT_EQ(0u, result.strOutput.find(strBefore)) << result.strOutput;
    EXPECT_NE(std::string::npos, result.strOutput.find("loop 0\n" + COMMUCATION_DOWN))
        << result.strOutput;
    // What remains when the lines of the lifecycle are taken away.
    std::string strText = result.strOutput;
    for (const char* pPattern :
         {"\\[debug\\] \\[ModuleManager.cpp \\] \\[(initModule|moduleUnInitialize)\\] [^\n]*\n",
          "(Commucation|System)Module (init|start|stop|uninit)\n", "(up|loop|down|status) 0\n"}) {
        strText = replacePattern(strText, pPattern, "");
    }
    return strText;
}

inline std::string words(int nCount, const std::vector<std::string>& vecWord)
{
    std::string strText = std::to_string(nCount) + " words";
    for (size_t i = 0; i < 10; ++i) {
        strText += " <" + ((i < vecWord.size()) ? vecWord[i] : "") + ">";
    }
    return strText + "\n";
}
