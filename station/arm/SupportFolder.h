// The files of a support archive, while they are gathered.
#pragma once

#include <string>
#include <vector>

/** A folder of its own below the temporary one, which goes with the object. One thread. */
class SupportFolder
{
public:
    SupportFolder();
    SupportFolder(const SupportFolder&) = delete;
    SupportFolder& operator=(const SupportFolder&) = delete;
    ~SupportFolder();

    /** Whether it could be made. */
    bool isMade() const
    {
        return !m_strPath.empty();
    }

    /** A word that has to stand in no file: it is replaced by stars. */
    void hide(const std::string& strSecret);

    /** Keep a text. */
    void add(const std::string& strName, std::string strText);

    /** Keep bytes as they are, e.g. a picture. */
    void addBytes(const std::string& strName, const std::string& strBytes);

    /** Keep a configuration, but for the values of keys that sound secret. */
    void addConfiguration(const std::string& strName, const std::string& strPath);

    /** Keep the end of a file, or note that it cannot be read. */
    void addFile(const std::string& strName, const std::string& strPath);

    /**
     * Keep what a program prints within 20 seconds, or note that it cannot be run.
     * @return false when it cannot
     */
    bool addOutput(const std::string& strName, const std::vector<std::string>& vecCommand);

    /** Note what is not there. */
    void miss(const std::string& strWhat, const std::string& strWhy);

    /** What is not there, and why, in a line each. */
    const std::vector<std::string>& getMissing() const
    {
        return m_vecMissing;
    }

    /**
     * Put all of it into one file, compressed, readable by its owner alone.
     * @param strError  a sentence
     */
    bool pack(const std::string& strArchive, std::string& strError);

private:
    std::string clean(std::string strText) const;

    std::string m_strPath; // empty: could not be made
    std::vector<std::string> m_vecSecret;
    std::vector<std::string> m_vecMissing;
};
