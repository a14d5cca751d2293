// A folder of its own for one test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

/** Made below the temporary folder, removed with all it holds. */
class ScratchFolder
{
public:
    ScratchFolder()
    {
        std::string strTemplate =
            (std::filesystem::temp_directory_path() / "kestrel-test-XXXXXX").string();
        m_path = mkdtemp(strTemplate.data());
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::filesystem::path& path() const
    {
        return m_path;
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

private:
    std::filesystem::path m_path;
};
