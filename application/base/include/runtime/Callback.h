// Member functions bound to their object: what event buses and the reactor call.
#pragma once

#include "Event.h"

/** A callback that takes an event and returns R. */
template <class R> class ICB
{
public:
    ICB() = default;
    ICB(const ICB&) = delete;
    ICB& operator=(const ICB&) = delete;
    virtual ~ICB() = default;

    virtual R call(Event* pEvent) = 0;

    /** True when both callbacks reach the same function of the same object. */
    virtual bool equals(const ICB& other) const = 0;
};

/**
 * A member function of class T, bound to one object of it.
 *
 * Borrows the object, which has to outlive the callback. The function may be virtual; the call then
 * reaches the override of the object's class.
 */
template <class T, class R> class CB : public ICB<R>
{
public:
    using Func = R (T::*)(Event*);

    CB(T* pObj, Func pFunc) : m_pObj(pObj), m_pFunc(pFunc) {}

    /** @return the function's result; 0, without a call, when object or function is null */
    R call(Event* pEvent) override
    {
        if (nullptr == m_pObj || nullptr == m_pFunc) {
            return static_cast<R>(0);
        }
        return (m_pObj->*m_pFunc)(pEvent);
    }

    /** Callbacks of different classes are never equal. */
    bool equals(const ICB<R>& other) const override
    {
        const CB* pOther = dynamic_cast<const CB*>(&other);
        return nullptr != pOther && m_pObj == pOther->m_pObj && m_pFunc == pOther->m_pFunc;
    }

private:
    T* m_pObj;
    Func m_pFunc;
};
