// Takes server-sent events apart.
#pragma once

#include <functional>
#include <string>

/** The text/event-stream of the HTML standard, as far as the station uses it. One thread. */
class EventText
{
public:
    using Sink = std::function<bool(const std::string& strName, const std::string& strData)>;

    /** @param sink  is given each whole event; false: no more */
    explicit EventText(Sink sink) : m_sink(std::move(sink)) {}

    /**
     * The next bytes, cut anywhere. Comments and unknown fields are skipped.
     * @return false when the sink wants no more, or a line has more than a MiB
     */
    bool take(const std::string& strBytes);

private:
    bool takeLine(const std::string& strLine);

    Sink m_sink;
    std::string m_strLine; // the line that is coming in
    std::string m_strName;
    std::string m_strData;
};
