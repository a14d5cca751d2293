// What goes wrong with the next lines that the virtual controller takes.
#include "FaultPlan.h"

#include <array>
#include <cstdlib>
#include <sstream>

namespace {

struct Kind
{
    const char* pName;
    FAULT_E eKind;
    bool bHasValue;
};

const std::array<Kind, 8> KINDS = {{{"no-answer", FAULT_NO_ANSWER, false},
                                    {"late", FAULT_LATE, true},
                                    {"half", FAULT_HALF, false},
                                    {"double", FAULT_DOUBLE, false},
                                    {"garbage", FAULT_GARBAGE, false},
                                    {"refuse", FAULT_REFUSE, true},
                                    {"alarm", FAULT_ALARM, true},
                                    {"status", FAULT_STATUS, true}}};

} // namespace

std::string makeGarbage(uint8_t u8Lowest)
{
    std::string strResult;
    for (int i = 0; i < 64; ++i) {
        strResult += static_cast<char>(u8Lowest + i * 37 % (0x100 - u8Lowest));
    }
    return strResult;
}

bool parseCount(const std::string& strText, int& nValue)
{
    if (strText.empty() || strText.size() > 9 ||
        std::string::npos != strText.find_first_not_of("0123456789")) {
        return false;
    }
    nValue = atoi(strText.c_str()); // NOLINT(cert-err34-c): only digits, few enough
    return true;
}

std::vector<std::string> splitWords(const std::string& strText)
{
    std::istringstream stream(strText);
    std::vector<std::string> vecWord;
    for (std::string strWord; stream >> strWord;) {
        vecWord.push_back(strWord);
    }
    return vecWord;
}

bool FaultPlan::add(const std::vector<std::string>& vecWord)
{
    for (const Kind& kind : KINDS) {
        if (vecWord.empty() || vecWord[0] != kind.pName) {
            continue;
        }
        Entry entry{{kind.eKind, 0}, 1};
        size_t uNext = 1;
        if (kind.bHasValue) {
            if (vecWord.size() < 2 || !parseCount(vecWord[uNext++], entry.fault.nValue)) {
                return false;
            }
        }
        if (uNext < vecWord.size() && !parseCount(vecWord[uNext++], entry.nLeft)) {
            return false;
        }
        if (uNext != vecWord.size() || entry.nLeft < 1) {
            return false;
        }
        m_deqEntry.push_back(entry);
        return true;
    }
    return false;
}

Fault FaultPlan::take()
{
    if (m_deqEntry.empty()) {
        return {};
    }
    Entry& entry = m_deqEntry.front();
    const Fault fault = entry.fault;
    if (0 == --entry.nLeft) {
        m_deqEntry.pop_front();
    }
    return fault;
}
