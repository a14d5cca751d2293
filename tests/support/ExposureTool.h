// Stands for the v4l2-ctl program and records how it is called.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

#include "ScratchFolder.h"

/** A script of that name, first in PATH for the object's life. */
class ExposureTool
{
public:
    /** @param nStatus  what the script exits with */
    explicit ExposureTool(int nStatus = 0)
    {
        m_folder.write("v4l2-ctl", "#!/bin/sh\necho \"$@\" >> " + m_folder.path().string() +
                                       "/calls\nexit " + std::to_string(nStatus) + "\n");
        std::filesystem::permissions(m_folder.path() / "v4l2-ctl",
                                     std::filesystem::perms::owner_all);
        const char* pPath = getenv("PATH");
        m_strPath = (nullptr == pPath) ? "" : pPath;
        setenv("PATH", (m_folder.path().string() + ":" + m_strPath).c_str(), 1);
    }
    ExposureTool(const ExposureTool&) = delete;
    ExposureTool& operator=(const ExposureTool&) = delete;
    ~ExposureTool()
    {
        setenv("PATH", m_strPath.c_str(), 1);
    }

    /** The arguments of each call, a line each. */
    std::string calls() const
    {
        return m_folder.read("calls");
    }

private:
    ScratchFolder m_folder;
    std::string m_strPath;
};
