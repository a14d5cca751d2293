// What a Thread runs: a member function without arguments, bound to its object.
#pragma once

/** A thread's body. */
template <class R> class IThreadFunc
{
public:
    IThreadFunc() = default;
    IThreadFunc(const IThreadFunc&) = delete;
    IThreadFunc& operator=(const IThreadFunc&) = delete;
    virtual ~IThreadFunc() = default;

    virtual R call() = 0;
};

/** Borrows the object, which has to outlive the thread. The function may be virtual. */
template <class R, class F, class C> class ThreadFunc : public IThreadFunc<R>
{
public:
    ThreadFunc(F pFunc, C* pObj) : m_pFunc(pFunc), m_pObj(pObj) {}

    R call() override
    {
        return (m_pObj->*m_pFunc)();
    }

private:
    F m_pFunc;
    C* m_pObj;
};
