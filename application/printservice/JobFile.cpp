// The G-code job on disk: kept, read line by line, removed at its end.
#include "JobFile.h"

#include <algorithm>

#include <sys/stat.h>
#include <unistd.h>

static const char* const JOB_FILE = "tmp.gcode";
static const char* const NEW_FILE = "tmp.gcode.new"; // until it takes the job file's place

JobFile::~JobFile()
{
    close();
}

void JobFile::save(const void* pData, int nLength)
{
    MutexGuard guard(m_mtx); // one new file at a time
    FILE* const pFile = fopen(NEW_FILE, "w+e");
    if (nullptr != pFile) {
        fwrite(pData, 1, (nLength > 0) ? static_cast<size_t>(nLength) : 0, pFile);
        fclose(pFile);
    }
    // An open job keeps reading its own.
    if (nullptr == pFile || 0 != rename(NEW_FILE, JOB_FILE)) {
        remove(JOB_FILE); // the next start must not burn the former job
    }
}

bool JobFile::measure()
{
    MutexGuard guard(m_mtx);
    if (nullptr != m_pFile) {
        return false;
    }
    struct stat status
    {
    };
    if (0 == stat(JOB_FILE, &status)) {
        m_nFileSize = static_cast<int32_t>(status.st_size);
    }
    m_nFilePos = 0;
    return true;
}

bool JobFile::exists() const
{
    return 0 == access(JOB_FILE, F_OK);
}

bool JobFile::isOpen() const
{
    MutexGuard guard(m_mtx);
    return nullptr != m_pFile;
}

bool JobFile::open()
{
    MutexGuard guard(m_mtx);
    closeStream(); // a job that was still open when its successor came
    m_pFile = fopen(JOB_FILE, "re");
    if (nullptr == m_pFile) {
        return false;
    }
    struct stat status
    {
    };
    if (0 == fstat(fileno(m_pFile), &status)) {
        m_nFileSize = static_cast<int32_t>(status.st_size);
    }
    m_nFilePos = 0;
    return true;
}

JOB_LINE_E JobFile::nextLine(char* pLine, int nSize)
{
    MutexGuard guard(m_mtx);
    if (nullptr == m_pFile || 0 != feof(m_pFile)) {
        return JOB_LINE_NONE;
    }
    m_nFilePos = static_cast<int32_t>(ftell(m_pFile));
    if (nullptr != fgets(pLine, nSize, m_pFile)) {
        return JOB_LINE_TEXT;
    }
    struct stat own
    {
    };
    struct stat waiting
    {
    };
    if (0 == fstat(fileno(m_pFile), &own) && 0 == stat(JOB_FILE, &waiting) &&
        own.st_dev == waiting.st_dev && own.st_ino == waiting.st_ino) {
        // Deliberate: before the state says stopped, or a start could open it once more. Another
        // file is the next job.
        remove(JOB_FILE);
    }
    closeStream();
    return JOB_LINE_END;
}

void JobFile::seekBack()
{
    MutexGuard guard(m_mtx);
    if (nullptr != m_pFile) {
        fseek(m_pFile, m_nFilePos, SEEK_SET);
    }
}

void JobFile::restart()
{
    MutexGuard guard(m_mtx);
    m_nFilePos = 0;
}

void JobFile::close()
{
    MutexGuard guard(m_mtx);
    closeStream();
}

float JobFile::getProgress() const
{
    MutexGuard guard(m_mtx);
    if (m_nFileSize <= 0) {
        return 0;
    }
    const double dShare = static_cast<double>(m_nFilePos) / static_cast<double>(m_nFileSize);
    return static_cast<float>(std::min(dShare, 1.0)); // someone may have made the file longer
}

void JobFile::closeStream()
{
    if (nullptr != m_pFile) {
        fclose(m_pFile);
        m_pFile = nullptr;
    }
}
