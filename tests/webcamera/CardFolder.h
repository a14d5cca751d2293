// The SD card's folder of the service, for tests in a private host.
#pragma once

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <sys/mount.h>

/** A fresh, empty folder; removed with all it holds, and unmounted. */
class CardFolder
{
public:
    /** @param strName  "www" or "camera" */
    explicit CardFolder(const std::string& strName)
        : m_path("/tmp/run/mountd/mmcblk0p1/kestrel-server/" + strName)
    {
        // The real card's folder may be somebody's: only a private host's is ours to remove.
        if (std::filesystem::exists(m_path.parent_path())) {
            throw std::runtime_error("run this in tests/support/private-host");
        }
        std::filesystem::create_directories(m_path);
    }
    CardFolder(const CardFolder&) = delete;
    CardFolder& operator=(const CardFolder&) = delete;
    ~CardFolder()
    {
        if (m_bMounted) {
            (void)umount2(m_path.c_str(), MNT_DETACH);
        }
        std::error_code ignored;
        std::filesystem::remove_all("/tmp/run", ignored);
    }

    const std::filesystem::path& path() const
    {
        return m_path;
    }

    /** Mount a file system over the folder. @param pOptions  of tmpfs, e.g. "size=8k" */
    bool mountTmpfs(unsigned long ulFlags, const char* pOptions)
    {
        m_bMounted = 0 == mount("card", m_path.c_str(), "tmpfs", ulFlags, pOptions);
        return m_bMounted;
    }

    void write(const std::string& strName, const std::string& strText) const
    {
        std::ofstream(m_path / strName, std::ios::binary) << strText;
    }

    std::string read(const std::string& strName) const
    {
        std::ifstream file(m_path / strName, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    bool has(const std::string& strName) const
    {
        return std::filesystem::exists(m_path / strName);
    }

    bool isEmpty() const
    {
        return std::filesystem::is_empty(m_path);
    }

private:
    const std::filesystem::path m_path;
    bool m_bMounted = false;
};
