// The words of a G-code line: read, checked by modal group, taken one by one.
#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

/** The three axes' letters, in the order of a Point. */
constexpr const char* GRBL_AXES = "XYZ";

/**
 * Words with a value are taken by what uses them: what is left over in the end was not used, which
 * is an error of the line. G and M words stay.
 */
class GrblWords
{
public:
    /** Modal groups, of which a line may have one word each. */
    enum GROUP_E
    {
        GROUP_MOTION = 1,
        GROUP_PLANE = 2,
        GROUP_DISTANCE = 3,
        GROUP_ARC_DISTANCE = 4,
        GROUP_FEED = 5,
        GROUP_UNITS = 6,
        GROUP_CUTTER = 7,
        GROUP_TOOL_LENGTH = 8,
        GROUP_SYSTEM = 12,
        GROUP_PATH = 13
    };

    GrblWords();

    /**
     * Read a line into an object that is new.
     * @param strLine  in upper case, without blanks and comments
     * @return 0 or the code of "error:N"; the object is then unusable
     */
    int read(const std::string& strLine);

    /** The group's G code times ten (G28.1 is 281), -1 without one. */
    int getG(GROUP_E eGroup) const
    {
        return m_anGroup[eGroup];
    }

    bool hasG(GROUP_E eGroup) const
    {
        return getG(eGroup) >= 0;
    }

    /** The same for the G codes that act in their own line alone. */
    int getNonModal() const
    {
        return m_nNonModal;
    }

    /** Whether every modal G word of the line is of units or distance. */
    bool hasOnlyJogModes() const;

    /** M codes in the order of the line. */
    const std::vector<int>& getM() const
    {
        return m_vecM;
    }

    /** Whether one of X, Y and Z is left. */
    bool hasAxes() const;

    bool has(char cLetter) const
    {
        return 0 != m_mapValue.count(cLetter);
    }

    /** @return false without the word; dValue is as before then */
    bool get(char cLetter, double& dValue) const;

    /** As get(), and the word is gone. */
    bool take(char cLetter, double& dValue);

    /** The words of these letters are used. */
    void drop(const std::string& strLetters);

    /** Whether all words with a value have been taken. */
    bool isEmpty() const
    {
        return m_mapValue.empty();
    }

private:
    int addG(double dValue);
    int addM(double dValue);

    std::map<char, double> m_mapValue; // all but G and M
    std::array<int, 16> m_anGroup;     // per modal group the code times ten, or -1
    int m_nNonModal = -1;              // the same; of group 0
    std::vector<int> m_vecM;
};
