// The consumer's callback.
#include "VideoConsumer.h"

#include <memory>

#include <gtest/gtest.h>

namespace {

class Receiver
{
public:
    int onFrame(Event* pEvent)
    {
        m_pEvent = pEvent;
        return 5;
    }

    Event* m_pEvent = nullptr;
};

/** A callback that records its destruction. */
class MortalCallback : public CB<Receiver, int>
{
public:
    MortalCallback(Receiver* pReceiver, bool* pGone)
        : CB<Receiver, int>(pReceiver, &Receiver::onFrame), m_pGone(pGone)
    {
    }
    ~MortalCallback() override
    {
        *m_pGone = true;
    }

private:
    bool* m_pGone;
};

} // namespace

TEST(VideoConsumer, WithoutCallbackNothingHappens)
{
    VideoConsumer consumer;
    PVENC_FRAME_T frame;
    VideoFrameEvent event(0, frame);

    EXPECT_EQ(0, consumer.consume(event, frame));
}

TEST(VideoConsumer, CallbackGetsTheEventAndGivesTheResult)
{
    Receiver receiver;
    VideoConsumer consumer;
    consumer.setCallback(std::make_unique<CB<Receiver, int>>(&receiver, &Receiver::onFrame));
    PVENC_FRAME_T frame;
    VideoFrameEvent event(0, frame);

    EXPECT_EQ(5, consumer.consume(event, frame));

    EXPECT_EQ(&event, receiver.m_pEvent);
}

TEST(VideoConsumer, CallbackGoesWithTheConsumer)
{
    Receiver receiver;
    bool bGone = false;
    {
        std::unique_ptr<IConsumer> pConsumer = std::make_unique<VideoConsumer>();
        pConsumer->setCallback(std::make_unique<MortalCallback>(&receiver, &bGone));
        EXPECT_FALSE(bGone);
    }

    EXPECT_TRUE(bGone);
}

TEST(VideoConsumer, StreamIsZeroUntilSet)
{
    VideoConsumer consumer;
    EXPECT_EQ(0, consumer.getStream());

    consumer.setStream(3);

    EXPECT_EQ(3, consumer.getStream());
}
