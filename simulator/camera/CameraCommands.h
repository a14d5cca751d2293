// The commands that change the virtual camera while it runs.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "CameraJournal.h"
#include "KernelFiles.h"
#include "SceneFile.h"
#include "UvcCamera.h"

/**
 * Carries out one line; README.md lists the commands. Each line is noted in the journal, except
 * those that only ask. Any thread.
 */
class CameraCommands
{
public:
    /** All borrowed for the object's life. */
    CameraCommands(UvcCamera& camera, KernelFiles& kernelFiles, SceneFile& scene,
                   CameraJournal& journal);

    /** @return "ok", "ok" and what was asked for, or "error: " and the reason; no line end */
    std::string run(const std::string& strLine);

    /** Whether "quit" was given. */
    bool hasQuit() const;

private:
    using Words = std::vector<std::string>;

    std::string change(const Words& vecWord);
    std::string fail(const Words& vecWord);
    std::string bytes(const Words& vecWord);
    std::string counted(const Words& vecWord);
    std::string list(const Words& vecWord);
    std::string spot(const Words& vecWord);
    std::string unplug(const Words& vecWord);
    std::string replug(const Words& vecWord);
    std::string broken(const Words& vecWord);
    std::string capabilities(const std::string& strWord);
    void putWorkpiece();
    std::string stateText();
    std::string statusText();

    UvcCamera& m_camera;
    KernelFiles& m_kernelFiles;
    SceneFile& m_scene;
    CameraJournal& m_journal;
    std::atomic<bool> m_bQuit{false};
};
