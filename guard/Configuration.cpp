// The guard's configuration file.
#include "Configuration.h"

#include <cmath>
#include <initializer_list>
#include <stdexcept>

#include <toml++/toml.h>

#include "TomlFile.h"

namespace {

/** A table of the file; throws std::runtime_error with the line to show. */
class Section
{
public:
    Section(const toml::table& file, std::string strName, std::initializer_list<const char*> keys)
        : m_strName(std::move(strName)), m_pTable(file[m_strName].as_table())
    {
        if (nullptr == m_pTable) {
            throw std::runtime_error("[" + m_strName + "] is missing");
        }
        for (const auto& [key, value] : *m_pTable) {
            bool bKnown = false;
            for (const char* const pKey : keys) {
                bKnown = bKnown || key.str() == pKey;
            }
            if (!bKnown) {
                throw std::runtime_error("unknown key " + name(std::string(key.str())));
            }
        }
    }

    std::string getText(const char* pKey) const
    {
        std::string strText = getText(pKey, "");
        if (strText.empty()) {
            throw std::runtime_error(name(pKey) + " is missing");
        }
        return strText;
    }
    std::string getText(const char* pKey, const std::string& strDefault) const
    {
        const toml::node* const pNode = m_pTable->get(pKey);
        if (nullptr == pNode) {
            return strDefault;
        }
        if (!pNode->is_string()) {
            throw std::runtime_error(name(pKey) + " is no text");
        }
        return **pNode->as_string();
    }
    bool getFlag(const char* pKey, bool bDefault) const
    {
        const toml::node* const pNode = m_pTable->get(pKey);
        if (nullptr == pNode) {
            return bDefault;
        }
        if (!pNode->is_boolean()) {
            throw std::runtime_error(name(pKey) + " is neither true nor false");
        }
        return **pNode->as_boolean();
    }
    /** A number above zero. */
    double getLimit(const char* pKey) const
    {
        const double dValue = takeNumber(m_pTable->get(pKey), pKey);
        if (!(dValue > 0)) {
            throw std::runtime_error(name(pKey) + " is not above zero");
        }
        return dValue;
    }
    double getLimit(const char* pKey, double dDefault) const
    {
        return (nullptr == m_pTable->get(pKey)) ? dDefault : getLimit(pKey);
    }
    MachinePoint getPoint(const char* pKey) const
    {
        const toml::node* const pNode = m_pTable->get(pKey);
        if (nullptr == pNode) {
            throw std::runtime_error(name(pKey) + " is missing");
        }
        const toml::array* const pArray = pNode->as_array();
        if (nullptr == pArray || 3 != pArray->size()) {
            throw std::runtime_error(name(pKey) + " is not [X, Y, Z]");
        }
        MachinePoint point{};
        for (size_t u = 0; u < 3; ++u) {
            point[u] = takeNumber(pArray->get(u), pKey);
        }
        return point;
    }

private:
    double takeNumber(const toml::node* pNode, const char* pKey) const
    {
        if (nullptr == pNode) {
            throw std::runtime_error(name(pKey) + " is missing");
        }
        if (!pNode->is_number()) {
            throw std::runtime_error(name(pKey) + " is no number");
        }
        const double dValue = pNode->value<double>().value_or(NAN);
        if (!std::isfinite(dValue)) {
            throw std::runtime_error(name(pKey) + " is not finite");
        }
        return dValue;
    }
    std::string name(const std::string& strKey) const
    {
        return m_strName + "." + strKey;
    }

    std::string m_strName;
    const toml::table* m_pTable;
};

/** A line for the controller that cannot do anything but switch an output. */
std::string takePilot(const Section& section, const char* pKey, const std::string& strDefault)
{
    std::string strLine = section.getText(pKey, strDefault);
    if ("M7" != strLine && "M8" != strLine && "M9" != strLine) {
        throw std::runtime_error(std::string("controller.") + pKey + " is none of M7, M8, M9");
    }
    return strLine;
}

Configuration take(const toml::table& file)
{
    for (const auto& [key, value] : file) {
        const std::string strKey(key.str());
        if ("controller" != strKey && "service" != strKey && "operator" != strKey &&
            "limits" != strKey && "job" != strKey) {
            throw std::runtime_error("unknown key " + strKey);
        }
    }
    Configuration result;
    const Section controller(file, "controller",
                             {"port", "language", "pilot_on", "pilot_off", "homing", "reset_line"});
    result.strPort = controller.getText("port");
    const std::string strLanguage = controller.getText("language");
    if ("grbl" != strLanguage && "kestrel" != strLanguage) {
        throw std::runtime_error("controller.language is neither \"grbl\" nor \"kestrel\"");
    }
    result.bGrbl = "grbl" == strLanguage;
    result.strPilotOn = takePilot(controller, "pilot_on", result.strPilotOn);
    result.strPilotOff = takePilot(controller, "pilot_off", result.strPilotOff);
    result.bHoming = controller.getFlag("homing", true);
    if (!result.bHoming && !result.bGrbl) {
        throw std::runtime_error("controller.homing is for language \"grbl\"");
    }
    result.strResetLine = controller.getText("reset_line", "");

    const Section service(file, "service", {"link", "group"});
    result.strLink = service.getText("link");
    result.strServiceGroup = service.getText("group", "");
    const Section operators(file, "operator", {"socket", "group"});
    result.strSocket = operators.getText("socket");
    result.strGroup = operators.getText("group", "");

    const Section limits(file, "limits",
                         {"min", "max", "feed", "power", "acceleration", "rapid_feed"});
    result.limits.minimum = limits.getPoint("min");
    result.limits.maximum = limits.getPoint("max");
    for (size_t u = 0; u < 3; ++u) {
        if (result.limits.minimum[u] > result.limits.maximum[u]) {
            throw std::runtime_error("limits.min is above limits.max");
        }
    }
    result.limits.dMaxFeed = limits.getLimit("feed");
    result.limits.dMaxPower = limits.getLimit("power");
    result.limits.dAcceleration = limits.getLimit("acceleration");
    result.limits.dRapidFeed = limits.getLimit("rapid_feed", 0);
    if (file.contains("job")) {
        result.bLease = Section(file, "job", {"lease"}).getFlag("lease", true);
    }
    return result;
}

} // namespace

bool readConfiguration(const std::string& strPath, Configuration& configuration,
                       std::string& strError)
{
    return readToml(strPath, strError, [&](const toml::table& file) {
        configuration = take(file);
        configuration.strFile = strPath;
    });
}
