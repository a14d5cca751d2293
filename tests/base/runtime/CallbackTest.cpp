// Bound member functions: what is called, and what counts as equal.
#include "Callback.h"

#include <gtest/gtest.h>

namespace {

class Target
{
public:
    virtual ~Target() = default;
    virtual int onEvent(Event* pEvent)
    {
        m_pSeen = pEvent;
        return 7;
    }
    int onOther(Event*)
    {
        return 8;
    }

    Event* m_pSeen = nullptr;
};

class DerivedTarget : public Target
{
public:
    int onEvent(Event*) override
    {
        return 70;
    }
};

class Stranger
{
public:
    int onEvent(Event*)
    {
        return 9;
    }
};

} // namespace

TEST(Callback, CallReachesTheFunctionWithTheEventAndReturnsItsResult)
{
    Target target;
    CB<Target, int> cb(&target, &Target::onEvent);
    Event event;

    EXPECT_EQ(7, cb.call(&event));
    EXPECT_EQ(&event, target.m_pSeen);
}

TEST(Callback, NullObjectReturnsZeroAndCallsNothing)
{
    CB<Target, int> cb(nullptr, &Target::onEvent);
    Event event;

    EXPECT_EQ(0, cb.call(&event));
}

TEST(Callback, NullFunctionReturnsZeroAndCallsNothing)
{
    Target target;
    CB<Target, int> cb(&target, nullptr);
    Event event;

    EXPECT_EQ(0, cb.call(&event));
    EXPECT_EQ(nullptr, target.m_pSeen);
}

TEST(Callback, VirtualFunctionReachesTheOverrideOfTheObject)
{
    DerivedTarget target;
    CB<Target, int> cb(&target, &Target::onEvent);
    Event event;

    EXPECT_EQ(70, cb.call(&event));
}

TEST(Callback, EqualWithSameObjectAndFunction)
{
    Target target;
    Target other;
    const CB<Target, int> cb(&target, &Target::onEvent);

    EXPECT_TRUE(cb.equals(CB<Target, int>(&target, &Target::onEvent)));
    EXPECT_FALSE(cb.equals(CB<Target, int>(&other, &Target::onEvent)));
    EXPECT_FALSE(cb.equals(CB<Target, int>(&target, &Target::onOther)));
}

TEST(Callback, TwoNullFunctionsOfOneObjectAreEqual)
{
    Target target;

    EXPECT_TRUE((CB<Target, int>(&target, nullptr).equals(CB<Target, int>(&target, nullptr))));
}

TEST(Callback, CallbackOfAnotherClassIsNeverEqual)
{
    Target target;
    Stranger stranger;

    EXPECT_FALSE((CB<Target, int>(&target, &Target::onEvent)
                      .equals(CB<Stranger, int>(&stranger, &Stranger::onEvent))));
    EXPECT_FALSE((CB<Target, int>(nullptr, nullptr).equals(CB<Stranger, int>(nullptr, nullptr))));
}
