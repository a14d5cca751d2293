// The answers of the virtual controller in the arm's own language, and when each is due.
#include "AnswerQueue.h"

#include <algorithm>
#include <utility>

void AnswerQueue::tell(const std::string& strText, int64_t s64NowUs)
{
    m_deqAnswer.push_back({s64NowUs, strText});
}

void AnswerQueue::append(const std::string& strText, int64_t s64FromUs)
{
    const int64_t s64LastUs = m_deqAnswer.empty() ? 0 : m_deqAnswer.back().s64DueUs;
    m_deqAnswer.push_back({std::max(s64FromUs, s64LastUs) + m_s64AnswerUs, strText});
}

void AnswerQueue::answer(const std::string& strText, const Fault& fault, int64_t s64NowUs)
{
    switch (fault.eKind) {
    case FAULT_NO_ANSWER:
        return;
    case FAULT_LATE:
        append(strText, s64NowUs + static_cast<int64_t>(fault.nValue) * 1000);
        return;
    case FAULT_HALF:
        append(strText.substr(0, strText.size() / 2), s64NowUs);
        return;
    case FAULT_DOUBLE:
        append(strText, s64NowUs);
        break;
    case FAULT_GARBAGE: { // as long as the service's reply buffer
        std::string strGarbage = makeGarbage(0);
        strGarbage[0] = '\xff'; // in place of the only zero
        append(strGarbage, s64NowUs);
        return;
    }
    default:
        break;
    }
    if (nullptr != m_pJoined) {
        m_pJoined->strText += strText;
        return;
    }
    append(strText, s64NowUs);
}

void AnswerQueue::join()
{
    m_pJoined = &m_deqAnswer.back();
}

bool AnswerQueue::take(int64_t s64NowUs, std::string& strText)
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

void AnswerQueue::drop()
{
    m_deqAnswer.clear();
    m_pJoined = nullptr;
}
