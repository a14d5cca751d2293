// The controller's reset line: a pin of the board, through sysfs.
#pragma once

#include <string>

/**
 * Blocks for 0.4 s at most, where a file does not take its text at once, and for 0.3 s where an
 * exported pin's files are slow to come.
 */
class ResetPin
{
public:
    /**
     * @param strFile  the pin's "value", ".../gpio106/value"; empty: there is no such line, and
     * nothing ever happens
     */
    explicit ResetPin(const std::string& strFile);

    bool isThere() const
    {
        return !m_strFile.empty();
    }

    /**
     * A pin whose files the kernel does not show yet is exported and driven high. One that it
     * shows keeps its level: a line that is held low stays so.
     * @return false with errno
     */
    bool prepare() const;

    /** Whether it is an output that is low; false where its files do not tell. */
    bool isHeld() const;

    /** Hold the line low, or drive it high, also where it was an input. @return false with errno */
    bool hold(bool bLow) const;

private:
    bool awaitDirection() const;
    static bool store(const std::string& strPath, const std::string& strText);
    static char readFirst(const std::string& strPath);

    std::string m_strFile;
    std::string m_strFolder; // of the pin
    std::string m_strExport; // the file that takes its number
    std::string m_strNumber;
};
