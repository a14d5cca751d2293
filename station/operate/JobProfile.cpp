// How the time of a job is spread over its lines.
#include "JobProfile.h"

#include <algorithm>
#include <memory>

#include "GcodeLine.h"
#include "GrblLanguage.h"
#include "KestrelLanguage.h"

static const size_t ENTRIES = 1000;       // whatever the length of the job
static const double LINE_SECONDS = 0.001; // a line without motion is not nothing

namespace {

std::unique_ptr<ILanguage> makeLanguage(const Configuration& configuration)
{
    if (configuration.bGrbl) {
        return std::make_unique<GrblLanguage>();
    }
    return std::make_unique<KestrelLanguage>();
}

} // namespace

JobProfile::JobProfile(const std::string& strText, const Configuration& configuration,
                       double dSeconds)
    : m_dSeconds(dSeconds)
{
    m_uLines = static_cast<size_t>(std::count(strText.begin(), strText.end(), '\n'));
    m_uLines += (strText.empty() || '\n' == strText.back()) ? 0 : 1;
    m_uStep = m_uLines / ENTRIES + 1;
    const std::unique_ptr<ILanguage> pLanguage = makeLanguage(configuration);
    GcodeCheck check(configuration.limits, pLanguage->getWords(), pLanguage->getPowerUpFeed());
    check.setPosition({});
    double dSum = 0;
    size_t uStart = 0;
    for (size_t uLine = 1; uLine <= m_uLines; ++uLine) {
        const size_t uEnd = std::min(strText.find('\n', uStart), strText.size());
        GcodeLine line;
        int64_t s64DurationUs = 0;
        if (LINE_GOOD == parseGcode(strText.data() + uStart, uEnd - uStart, line)) {
            (void)check.apply(line, true, s64DurationUs); // none for a line that would be refused
        }
        dSum += LINE_SECONDS + static_cast<double>(s64DurationUs) / 1e6;
        uStart = uEnd + 1;
        if (0 == uLine % m_uStep || uLine == m_uLines) {
            m_vecShare.push_back(dSum);
        }
    }
    for (double& dShare : m_vecShare) {
        dShare /= dSum;
    }
}

double JobProfile::getShare(size_t uLine) const
{
    if (uLine >= m_uLines) {
        return 1;
    }
    const size_t uEntry = uLine / m_uStep;
    const double dBefore = (uEntry > 0) ? m_vecShare[uEntry - 1] : 0;
    const double dPart = static_cast<double>(uLine % m_uStep) / static_cast<double>(m_uStep);
    return dBefore + (m_vecShare[uEntry] - dBefore) * dPart;
}
