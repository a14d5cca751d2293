// What happens at the arm, as the journal's lines.
#include "JournalText.h"

#include <array>
#include <cstdio>

using nlohmann::json;

std::string tellEvent(const json& event)
{
    std::string strText = event.value("event", "");
    for (const char* const pKey : {"level", "reason", "fault", "code", "detail"}) {
        const auto value = event.find(pKey);
        if (event.end() != value) {
            strText += ("reason" == std::string(pKey)) ? ": " : " ";
            strText += value->is_string() ? value->get<std::string>() : value->dump();
        }
    }
    return strText;
}

std::string tellMeasurement(const json& measurement)
{
    std::string strText = "measured: " + measurement["result"].get<std::string>();
    std::array<char, 96> acText{};
    if (const json& spot = measurement["spot"]; spot.is_object()) {
        snprintf(acText.data(), acText.size(), ", spot at %.2f %.2f", spot["x"].get<double>(),
                 spot["y"].get<double>());
        strText += acText.data();
    }
    if (const json& height = measurement["height"]; height.is_number()) {
        snprintf(acText.data(), acText.size(), ", height %.4f", height.get<double>());
        strText += acText.data();
    }
    for (const char* const pKey : {"spot_picture", "height_picture"}) {
        if (const json& picture = measurement[pKey]; picture.is_object()) {
            strText += ", picture " + picture["sha256"].get<std::string>();
        }
    }
    return strText;
}
