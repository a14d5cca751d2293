// Takes a firmware image in raw blocks and keeps it in a file.
#include "FirmwareLoader.h"

#include <algorithm>
#include <utility>

static const char* const MAGIC = "KFW1";
static const size_t MAGIC_SIZE = 4;
static const size_t HEAD_SIZE = 8; // magic and length

FirmwareLoader::FirmwareLoader(std::string strPath, int64_t s64QuietUs)
    : m_strPath(std::move(strPath)), m_s64QuietUs(s64QuietUs)
{
}

FirmwareLoader::~FirmwareLoader()
{
    end();
}

void FirmwareLoader::begin(int64_t s64NowUs)
{
    end();
    m_strHead.clear();
    m_u64Taken = 0;
    m_s64LastUs = s64NowUs;
    m_bActive = true;
    if (!m_strPath.empty()) {
        m_pFile = fopen(m_strPath.c_str(), "we");
    }
}

size_t FirmwareLoader::take(const char* pData, size_t uLength, int64_t s64NowUs)
{
    m_s64LastUs = s64NowUs;
    size_t uUsed = 0;
    while (uUsed < uLength && m_bActive) {
        size_t uPart = 0;
        if (m_strHead.size() < HEAD_SIZE) {
            uPart = std::min(uLength - uUsed, HEAD_SIZE - m_strHead.size());
            m_strHead.append(pData + uUsed, uPart);
        } else {
            uPart = static_cast<size_t>(
                std::min<uint64_t>(uLength - uUsed, getExpected() - m_u64Taken));
        }
        if (nullptr != m_pFile) {
            fwrite(pData + uUsed, 1, uPart, m_pFile);
        }
        uUsed += uPart;
        m_u64Taken += uPart;
        if (m_strHead.size() == HEAD_SIZE && m_u64Taken >= getExpected()) {
            end();
        }
    }
    return uUsed;
}

bool FirmwareLoader::endIfQuiet(int64_t s64NowUs)
{
    if (!m_bActive || s64NowUs < getQuietUs()) {
        return false;
    }
    end();
    return true;
}

void FirmwareLoader::end()
{
    m_bActive = false;
    if (nullptr != m_pFile) {
        fclose(m_pFile);
        m_pFile = nullptr;
    }
}

std::string FirmwareLoader::getResult() const
{
    const uint64_t u64Expected = getExpected();
    const char* const pVerdict = (UINT64_MAX == u64Expected)   ? "raw"
                                 : (m_u64Taken == u64Expected) ? "complete"
                                                               : "cut";
    return std::to_string(m_u64Taken) + " bytes " + pVerdict;
}

uint64_t FirmwareLoader::getExpected() const
{
    if (m_strHead.size() < HEAD_SIZE || 0 != m_strHead.compare(0, MAGIC_SIZE, MAGIC)) {
        return UINT64_MAX;
    }
    uint64_t u64Length = 0;
    for (size_t i = HEAD_SIZE; i > MAGIC_SIZE; --i) {
        u64Length = (u64Length << 8) | static_cast<unsigned char>(m_strHead[i - 1]);
    }
    return HEAD_SIZE + u64Length;
}
