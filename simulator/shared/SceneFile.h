// The shared record of the laser spot, mapped from a file.
#pragma once

#include <string>

#include "SceneState.h"

/** Maps the file, made when it is missing: then the laser is off at the origin. Any thread. */
class SceneFile
{
public:
    /**
     * Not mapped when the file cannot be used, errno says why; then the state is a record of its
     * own.
     */
    explicit SceneFile(const std::string& strPath);
    ~SceneFile();
    SceneFile(const SceneFile&) = delete;
    SceneFile& operator=(const SceneFile&) = delete;

    bool isMapped() const;
    SceneState& getState();

private:
    void* m_pMapped = nullptr;
    SceneState m_own{};
};
