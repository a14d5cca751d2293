// Who moves the arm: one at a time.
#pragma once

#include <atomic>

/** What the arm is used for. */
enum ARM_USE_E : int
{
    ARM_FREE,
    ARM_HOME,
    ARM_MOVE,
    ARM_JOG,
    ARM_MEASURE,
    ARM_JOB,
    ARM_JOB_END // it is over; its print is being stopped
};

/**
 * A home, a move, a measurement or a job keeps all others out, wherever they were asked for: on
 * the operator's interface, or on the camera service's port, which has no login. Any thread.
 */
class ArmUse
{
public:
    static ArmUse& getInstance();
    ArmUse(const ArmUse&) = delete;
    ArmUse& operator=(const ArmUse&) = delete;

    /** @return false when it is in use */
    bool begin(ARM_USE_E eUse);
    void end();

    /** By whoever has it. */
    void change(ARM_USE_E eUse);

    /** Until a job that is over has left the arm: a moment, and for 5 s at most. */
    void awaitJobEnd() const;

    ARM_USE_E get() const
    {
        return m_eUse;
    }

    /** Whether the camera service's clients may measure; false until told. */
    void setOpen(bool bOpen)
    {
        m_bOpen = bOpen;
    }
    bool isOpen() const
    {
        return m_bOpen;
    }

    /** Whether the guard lets the arm move, and there are new pictures; false until told. */
    void setReady(bool bReady)
    {
        m_bReady = bReady;
    }
    bool isReady() const
    {
        return m_bReady;
    }

private:
    ArmUse() = default;

    std::atomic<ARM_USE_E> m_eUse{ARM_FREE};
    std::atomic<bool> m_bOpen{false};
    std::atomic<bool> m_bReady{false};
};

/** Uses the arm for a scope, if nobody else does. */
class ArmUser
{
public:
    explicit ArmUser(ARM_USE_E eUse) : m_bBegun(ArmUse::getInstance().begin(eUse)) {}
    ArmUser(const ArmUser&) = delete;
    ArmUser& operator=(const ArmUser&) = delete;
    ~ArmUser()
    {
        if (m_bBegun) {
            ArmUse::getInstance().end();
        }
    }

    bool hasBegun() const
    {
        return m_bBegun;
    }

    /** Whoever takes it over ends it. */
    void release()
    {
        m_bBegun = false;
    }

private:
    bool m_bBegun;
};
