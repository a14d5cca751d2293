// The answers of a controller that speaks Grbl 1.1, on their way over the wire.
#include "GrblTransmitter.h"

#include <algorithm>
#include <utility>

// Measured at a controller with this firmware.
static const int64_t ANSWER_US = 2500; // from a byte to the answer's first
static const int64_t BYTE_US = 87;     // at 115200 baud

void GrblTransmitter::say(const std::string& strText, int64_t s64NowUs)
{
    if (std::max(s64NowUs + ANSWER_US, m_s64WireUs) >= m_s64LateUs) {
        sayNow(strText, s64NowUs);
        return;
    }
    m_s64LateUs += static_cast<int64_t>(strText.size()) * BYTE_US;
    m_deqAnswer.push_back({m_s64LateUs, strText});
}

void GrblTransmitter::sayNow(const std::string& strText, int64_t s64NowUs)
{
    const auto s64Wire = static_cast<int64_t>(strText.size()) * BYTE_US;
    m_s64WireUs = std::max(s64NowUs + ANSWER_US, m_s64WireUs) + s64Wire;
    const auto it =
        std::find_if(m_deqAnswer.begin(), m_deqAnswer.end(),
                     [this](const Answer& answer) { return answer.s64DueUs > m_s64WireUs; });
    m_deqAnswer.insert(it, {m_s64WireUs, strText});
}

void GrblTransmitter::sayWithFault(const std::string& strText, const Fault& fault, int64_t s64NowUs)
{
    switch (fault.eKind) {
    case FAULT_NO_ANSWER:
        return;
    case FAULT_LATE:
        m_s64LateUs = std::max({s64NowUs + ANSWER_US, m_s64WireUs, m_s64LateUs}) +
                      static_cast<int64_t>(strText.size()) * BYTE_US +
                      static_cast<int64_t>(fault.nValue) * 1000;
        m_deqAnswer.push_back({m_s64LateUs, strText});
        return;
    case FAULT_HALF:
        say(strText.substr(0, strText.size() / 2), s64NowUs);
        return;
    case FAULT_GARBAGE:
        say(makeGarbage(0x80), s64NowUs);
        return;
    case FAULT_DOUBLE:
        say(strText, s64NowUs);
        break;
    default:
        break;
    }
    say(strText, s64NowUs);
}

bool GrblTransmitter::take(int64_t s64NowUs, std::string& strText)
{
    while (!m_deqAnswer.empty() && m_deqAnswer.front().s64DueUs <= s64NowUs) {
        strText = std::move(m_deqAnswer.front().strText);
        m_deqAnswer.pop_front();
        if (!m_bMuted) {
            return true;
        }
    }
    return false;
}
