// The answers of the virtual controller in the arm's own language, and when each is due.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "FaultPlan.h"

/**
 * One answer is one write; they leave in order.
 *
 * Not thread-safe; times are microseconds. Nothing bounds the answers: the caller fetches them.
 */
class AnswerQueue
{
public:
    /** @param s64AnswerUs  what each line takes to be answered */
    explicit AnswerQueue(int64_t s64AnswerUs) : m_s64AnswerUs(s64AnswerUs) {}

    /** What answers no line: due at once. */
    void tell(const std::string& strText, int64_t s64NowUs);

    /**
     * Answer a line, altered by the fault. While joined it becomes part of another answer.
     */
    void answer(const std::string& strText, const Fault& fault, int64_t s64NowUs);

    /** Until endJoin(), send a line's answer in the same write as the last tell(). */
    void join();
    void endJoin()
    {
        m_pJoined = nullptr;
    }

    /** The next answer that is due. @return false without one, or while muted: it is lost then */
    bool take(int64_t s64NowUs, std::string& strText);

    /** When the next one is due; -1 without one. */
    int64_t getDueUs() const
    {
        return m_deqAnswer.empty() ? -1 : m_deqAnswer.front().s64DueUs;
    }

    /** Forget the answers; ends a join. */
    void drop();

    /** Lose what becomes due from now on, or no longer. */
    void mute(bool bMuted)
    {
        m_bMuted = bMuted;
    }

private:
    struct Answer
    {
        int64_t s64DueUs;
        std::string strText;
    };

    void append(const std::string& strText, int64_t s64FromUs);

    int64_t m_s64AnswerUs;
    std::deque<Answer> m_deqAnswer;
    Answer* m_pJoined = nullptr; // in m_deqAnswer
    bool m_bMuted = false;
};
