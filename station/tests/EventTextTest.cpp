// Server-sent events, cut anywhere.
#include "EventText.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Events = std::vector<std::pair<std::string, std::string>>;

EventText::Sink into(Events& events)
{
    return [&events](const std::string& strName, const std::string& strData) {
        events.emplace_back(strName, strData);
        return true;
    };
}

} // namespace

TEST(EventText, EventsAreWholeWhereverTheyAreCut)
{
    const std::string strStream = ": hello\n\nevent: state\ndata: {\"a\":1}\n\n"
                                  "id: 7\r\nevent:journal\r\ndata: one\r\ndata:two\r\n\r\n"
                                  "retry: 5\ndata: bare\n\nevent: nothing\n\n";
    const Events expected = {{"state", "{\"a\":1}"}, {"journal", "one\ntwo"}, {"message", "bare"}};
    for (size_t uCut = 0; uCut <= strStream.size(); ++uCut) {
        Events events;
        EventText text(into(events));

        EXPECT_TRUE(text.take(strStream.substr(0, uCut)));
        EXPECT_TRUE(text.take(strStream.substr(uCut)));

        EXPECT_EQ(expected, events) << uCut;
    }
}

TEST(EventText, SinkThatHasEnoughEndsIt)
{
    int nEvents = 0;
    EventText text([&nEvents](const std::string&, const std::string&) { return ++nEvents < 2; });

    EXPECT_FALSE(text.take("data: 1\n\ndata: 2\n\ndata: 3\n\n"));

    EXPECT_EQ(2, nEvents);
}

TEST(EventText, EndlessLineEndsIt)
{
    Events events;
    EventText text(into(events));

    EXPECT_TRUE(text.take("data: " + std::string(1000000, 'x')));
    EXPECT_FALSE(text.take(std::string(100000, 'x')));
}
