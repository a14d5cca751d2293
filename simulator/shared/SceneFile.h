// The shared record of the laser spot and of what is burnt, mapped from a file.
#pragma once

#include <memory>
#include <string>

#include "SceneState.h"

/**
 * Maps the file, made when it is missing: then the laser is off at the origin and nothing is burnt.
 * The file is 5 MB long, and takes the space of what has been burnt. Any thread.
 */
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
    SceneState& getState()
    {
        return m_pRecord->spot;
    }
    BurntState& getBurnt()
    {
        return m_pRecord->burnt;
    }

private:
    void* m_pMapped = nullptr;
    std::unique_ptr<SceneRecord> m_pOwn; // while nothing is mapped
    SceneRecord* m_pRecord = nullptr;    // one of the two
};
