// "kestrel-arm check": looks through a job's file, without a machine.
#include "CheckCommand.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include <sys/stat.h>

#include "CheckText.h"
#include "Configuration.h"
#include "GrblLanguage.h"
#include "InputFile.h"
#include "JobCheck.h"
#include "JobPicture.h"
#include "KestrelLanguage.h"

namespace {

/** Says so on standard error when it fails. */
bool writeFile(const std::string& strPath, const std::string& strText)
{
    FILE* const pFile = fopen(strPath.c_str(), "we");
    bool bWritten = false;
    if (nullptr != pFile) {
        bWritten = fwrite(strText.data(), 1, strText.size(), pFile) == strText.size();
        bWritten = 0 == fclose(pFile) && bWritten;
    }
    if (!bWritten) {
        fprintf(stderr, "kestrel-arm: %s: %s\n", strPath.c_str(), strerror(errno));
    }
    return bWritten;
}

bool isSameFile(const std::string& strFirst, const std::string& strSecond)
{
    struct stat first = {};
    struct stat second = {};
    return 0 == stat(strFirst.c_str(), &first) && 0 == stat(strSecond.c_str(), &second) &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

/** "G55=X,Y,Z" */
bool takeSystem(const std::string& strText, JobCheck& check)
{
    int nSystem = 0;
    int nEnd = -1;
    MachinePoint origin{};
    (void)sscanf(strText.c_str(), "G%2d=%lf,%lf,%lf%n", &nSystem, &origin[0], &origin[1],
                 &origin[2],
                 &nEnd); // nEnd tells whether all of it was taken
    if (nEnd < 0 || strText.size() != static_cast<size_t>(nEnd) || nSystem < 54 || nSystem > 59 ||
        !std::isfinite(origin[0] + origin[1] + origin[2])) {
        fprintf(stderr, "kestrel-arm: --system %s is not like G55=10,20,0\n", strText.c_str());
        return false;
    }
    check.setSystem(static_cast<size_t>(nSystem - 54), origin);
    return true;
}

} // namespace

CheckCommand::CheckCommand(CLI::App& app)
    : m_pCommand(app.add_subcommand("check", "Look through a job's file; needs no machine.")),
      m_strConfiguration("/etc/kestrel-guard.toml")
{
    m_pCommand->add_option("FILE", m_strFile, "the job")->required();
    m_pCommand->add_option("--configuration", m_strConfiguration, "the guard's, for its limits")
        ->capture_default_str();
    m_pCommand->add_flag("--json", m_bJson, "print JSON");
    m_pCommand->add_option("--mend", m_strMended, "write a mended copy there");
    m_pCommand->add_option("--svg", m_strPicture, "draw the path there");
    m_pCommand->add_option("--start", m_vecStart, "X Y Z of the arm when the job begins, mm")
        ->expected(3)
        ->capture_default_str();
    m_pCommand->add_option("--system", m_vecSystem,
                           "origin of a coordinate system, e.g. G55=10,20,0; may be repeated");
}

int CheckCommand::run()
{
    Configuration configuration;
    std::string strError;
    if (!readConfiguration(m_strConfiguration, configuration, strError)) {
        fprintf(stderr, "kestrel-arm: %s\n", strError.c_str());
        return STATUS_UNUSABLE;
    }
    std::unique_ptr<ILanguage> pLanguage;
    if (configuration.bGrbl) {
        pLanguage = std::make_unique<GrblLanguage>();
    } else {
        pLanguage = std::make_unique<KestrelLanguage>();
    }
    JobCheck check(configuration.limits, *pLanguage);
    check.setStart({m_vecStart[0], m_vecStart[1], m_vecStart[2]});
    for (const std::string& strSystem : m_vecSystem) {
        if (!takeSystem(strSystem, check)) {
            return STATUS_UNUSABLE;
        }
    }
    for (const std::string& strOut : {m_strMended, m_strPicture}) {
        if (!strOut.empty() && isSameFile(m_strFile, strOut)) {
            fprintf(stderr, "kestrel-arm: %s is the job itself\n", strOut.c_str());
            return STATUS_UNUSABLE;
        }
    }
    CheckResult result;
    result.strFile = m_strFile;
    std::string strText;
    if (!readInputFile(m_strFile, strText)) {
        return STATUS_UNUSABLE;
    }
    JobPicture picture;
    if (!m_strPicture.empty()) {
        check.onMove(
            [&picture](const GcodeMove& move, MOVE_BEAM_E eBeam) { picture.add(move, eBeam); });
    }
    std::string strMended;
    result.report = check.check(strText, m_strMended.empty() ? nullptr : &strMended);
    if (!m_strPicture.empty() && !writeFile(m_strPicture, picture.draw(configuration.limits))) {
        return STATUS_UNUSABLE;
    }
    if (!strMended.empty()) {
        check.onMove(nullptr);
        result.strMendedFile = m_strMended;
        result.mended = check.check(strMended, nullptr);
        if (!writeFile(m_strMended, strMended)) {
            return STATUS_UNUSABLE;
        }
    }
    const std::string strOut = m_bJson ? toJson(result) : toText(result);
    if (fwrite(strOut.data(), 1, strOut.size(), stdout) != strOut.size() || 0 != fflush(stdout)) {
        return STATUS_UNUSABLE;
    }
    return result.passes() ? STATUS_DONE : STATUS_REFUSED;
}
