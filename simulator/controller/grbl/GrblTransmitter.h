// The answers of a controller that speaks Grbl 1.1, on their way over the wire.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "FaultPlan.h"

/**
 * An answer is whole on the other side once it has been prepared and its bytes have passed a wire
 * of 115200 baud behind those of the answers before it.
 *
 * Not thread-safe; times are microseconds. Nothing bounds the answers: the caller fetches them.
 */
class GrblTransmitter
{
public:
    void say(const std::string& strText, int64_t s64NowUs);

    /** What no line asked for: it does not wait behind a line's late answer. */
    void sayNow(const std::string& strText, int64_t s64NowUs);

    /** Say a line's result, altered by the fault. */
    void sayWithFault(const std::string& strText, const Fault& fault, int64_t s64NowUs);

    /** The next answer that is whole. @return false without one, or while muted: it is lost then */
    bool take(int64_t s64NowUs, std::string& strText);

    /** When the next one is whole; -1 without one. */
    int64_t getDueUs() const
    {
        return m_deqAnswer.empty() ? -1 : m_deqAnswer.front().s64DueUs;
    }

    /** Forget the answers. The wire stays busy for as long as they would have taken. */
    void drop()
    {
        m_deqAnswer.clear();
        m_s64LateUs = 0;
    }

    /** Lose what becomes whole from now on, or no longer. */
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

    std::deque<Answer> m_deqAnswer;
    int64_t m_s64WireUs = 0; // until then the wire is busy with answers
    int64_t m_s64LateUs = 0; // when the last late answer, or what waits behind it, is whole
    bool m_bMuted = false;
};
