// Takes one HTTP request apart: URL, path, query parameters, two headers and the body.
#include "HttpRequestParser.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstring>
#include <new>
#include <system_error>

#include "Log.h"

static const char* const SOURCE_NAME = "webcamera/HttpRequestParser";

namespace {

/**
 * Deliberate: case-sensitive, and a field that is only the beginning of the name, e.g. "Content-",
 * counts as the name.
 */
bool isHeader(std::string_view name, const char* pField, size_t uLength)
{
    return uLength <= name.size() && 0 == memcmp(name.data(), pField, uLength);
}

/** As atoi(3), clamped to int; the header's value has no terminator. Allocates nothing. */
int toInt(std::string_view text)
{
    while (!text.empty() && 0 != isspace(static_cast<unsigned char>(text.front()))) {
        text.remove_prefix(1);
    }
    const bool bNegative = !text.empty() && '-' == text.front();
    if (bNegative || (!text.empty() && '+' == text.front())) {
        text.remove_prefix(1);
    }
    uint32_t u32Value = 0;
    if (std::errc::result_out_of_range ==
        std::from_chars(text.data(), text.data() + text.size(), u32Value).ec) {
        u32Value = UINT32_MAX;
    }
    const auto u32Most = static_cast<uint32_t>(INT_MAX);
    if (bNegative) {
        return (u32Value > u32Most) ? INT_MIN : -static_cast<int>(u32Value);
    }
    return static_cast<int>(std::min(u32Value, u32Most));
}

} // namespace

HttpRequestParser::HttpRequestParser()
{
    http_parser_init(&m_state, HTTP_REQUEST);
}

const http_parser_settings& HttpRequestParser::settings()
{
    static const http_parser_settings s_settings = [] {
        http_parser_settings all{};
        all.on_url = onUrl;
        all.on_header_field = onHeaderField;
        all.on_header_value = onHeaderValue;
        all.on_body = onBody;
        return all;
    }();
    return s_settings;
}

int HttpRequestParser::onUrl(http_parser* pState, const char* pAt, size_t uLength)
{
    static_cast<HttpRequestParser*>(pState->data)->m_url = std::string_view(pAt, uLength);
    return 0;
}

int HttpRequestParser::onHeaderField(http_parser* pState, const char* pAt, size_t uLength)
{
    auto& self = *static_cast<HttpRequestParser*>(pState->data);
    if (isHeader("Content-Type", pAt, uLength)) {
        self.m_bContentType = true;
    }
    if (isHeader("Content-Length", pAt, uLength)) {
        self.m_bContentLength = true;
    }
    return 0;
}

int HttpRequestParser::onHeaderValue(http_parser* pState, const char* pAt, size_t uLength)
{
    auto& self = *static_cast<HttpRequestParser*>(pState->data);
    if (self.m_bContentType) {
        try {
            self.m_strContentType.assign(pAt, uLength);
        } catch (const std::bad_alloc&) {
            return 1; // a parse error: no exception may cross the library, which is C
        }
        self.m_bContentType = false;
    }
    if (self.m_bContentLength) {
        self.m_nContentLength = toInt(std::string_view(pAt, uLength));
        self.m_bContentLength = false;
    }
    return 0;
}

int HttpRequestParser::onBody(http_parser* pState, const char* pAt, size_t uLength)
{
    static_cast<HttpRequestParser*>(pState->data)->m_body = std::string_view(pAt, uLength);
    return 0;
}

int HttpRequestParser::parse(const char* pData, int nLength)
{
    m_state.data = this;
    (void)http_parser_execute(&m_state, &settings(), pData, static_cast<size_t>(nLength));
    const http_errno eError = HTTP_PARSER_ERRNO(&m_state);
    if (HPE_OK != eError) {
        LOG(7, "parse request error :\n%.*s\n%s:%s\n", nLength, pData, http_errno_name(eError),
            http_errno_description(eError));
        return 1;
    }
    if (0 != http_parser_parse_url(m_url.data(), m_url.size(), 0, &m_urlParts)) {
        LOG(7, "url parse error !\n");
        return 1;
    }
    const std::string_view query = getQuery();
    if (nullptr != query.data()) {
        m_query = query;
        m_uQueryPos = 0;
    }
    return 0;
}

std::string_view HttpRequestParser::urlPart(http_parser_url_fields eField) const
{
    if (0 == (m_urlParts.field_set & (1U << eField))) {
        return {};
    }
    const auto& part = m_urlParts.field_data[eField];
    return m_url.substr(part.off, part.len);
}

std::string_view HttpRequestParser::getPath() const
{
    return urlPart(UF_PATH);
}

std::string_view HttpRequestParser::getQuery() const
{
    return urlPart(UF_QUERY);
}

bool HttpRequestParser::nextParam(std::string_view& key, std::string_view& value)
{
    key = {};
    value = {};
    const size_t uLength = m_query.size();
    size_t& uPos = m_uQueryPos;
    if (uPos < uLength && '&' == m_query[uPos]) {
        ++uPos;
    }
    size_t uStart = uPos;
    bool bKey = false;
    bool bValue = false;
    for (; uPos < uLength && !(bKey && bValue); ++uPos) {
        const bool bLast = uPos + 1 == uLength;
        if ('=' == m_query[uPos]) {
            key = m_query.substr(uStart, uPos - uStart);
            bKey = true;
            uStart = uPos + 1;
        } else if ('&' == m_query[uPos] || bLast) {
            // Deliberate: at the end of the query the character belongs to the value, even a '&'.
            value = m_query.substr(uStart, uPos - uStart + (bLast ? 1 : 0));
            bValue = true;
        }
    }
    return !key.empty() && !value.empty();
}
