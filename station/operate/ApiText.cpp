// What requests say and answers are made of.
#include "ApiText.h"

#include <cerrno>
#include <cmath>
#include <cstring>

#include "ApiProblem.h"

using nlohmann::json;

std::string toText(const json& document)
{
    return document.dump(-1, ' ', false, json::error_handler_t::replace);
}

void answerJson(httplib::Response& response, const json& document)
{
    response.set_content(toText(document) + "\n", "application/json");
}

/** The body as an object with no key but these. */
json takeBody(const httplib::Request& request, std::initializer_list<const char*> keys)
{
    json body = json::parse(request.body, nullptr, false);
    if (!body.is_object()) {
        throw ApiProblem("bad-request", "The body is no JSON object.");
    }
    for (const auto& [strKey, value] : body.items()) {
        bool bKnown = false;
        for (const char* const pKey : keys) {
            bKnown = bKnown || strKey == pKey;
        }
        if (!bKnown) {
            throw ApiProblem("bad-request", "Nothing is known of \"" + strKey + "\".");
        }
    }
    return body;
}

double takeNumber(const json& body, const char* pKey, double dLeast, double dMost)
{
    const auto value = body.find(pKey);
    const double dValue =
        (body.end() != value && value->is_number()) ? value->get<double>() : std::nan("");
    if (!(dValue >= dLeast && dValue <= dMost)) {
        throw ApiProblem("bad-request", std::string("\"") + pKey + "\" is no number that fits.");
    }
    return dValue;
}

/** A whole number in the query. */
uint64_t takeCount(const httplib::Request& request, const char* pKey, uint64_t u64Default,
                   uint64_t u64Least, uint64_t u64Most)
{
    if (!request.has_param(pKey)) {
        return u64Default;
    }
    const std::string strValue = request.get_param_value(pKey);
    const bool bDigits = !strValue.empty() && strValue.size() <= 15 &&
                         std::string::npos == strValue.find_first_not_of("0123456789");
    const uint64_t u64Value = bDigits ? std::stoull(strValue) : 0;
    if (!bDigits || u64Value < u64Least || u64Value > u64Most) {
        throw ApiProblem("bad-request", std::string("\"") + pKey + "\" is no number that fits.");
    }
    return u64Value;
}

void receiveFile(const httplib::Request& request, const httplib::ContentReader& reader,
                 JobStore::Incoming& incoming)
{
    uint64_t u64Size = 0;
    bool bKept = true;
    const bool bWhole = reader([&](const char* pData, size_t uLength) {
        u64Size += uLength;
        bKept = incoming.write(pData, uLength);
        return bKept;
    });
    if (!bKept) {
        throw ApiProblem("no-space", std::string("The file cannot be kept: ") + strerror(errno));
    }
    if (!bWhole || 0 == u64Size ||
        u64Size != request.get_header_value<uint64_t>("Content-Length")) {
        throw ApiProblem("bad-request", "The file is empty, or did not come whole.");
    }
}
