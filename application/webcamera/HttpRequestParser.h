// Takes one HTTP request apart: URL, path, query parameters, two headers and the body.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <http_parser.h>

/**
 * Parses the chunk in which a request begins. It ignores later chunks.
 *
 * Results point into that chunk, which has to outlive their use; only the Content-Type's value is
 * copied. A chunk that ends within the request counts as it is: a cut URL is the URL. Of several
 * requests in one chunk the last URL counts. One thread at a time.
 */
class HttpRequestParser
{
public:
    HttpRequestParser();
    HttpRequestParser(const HttpRequestParser&) = delete;
    HttpRequestParser& operator=(const HttpRequestParser&) = delete;
    virtual ~HttpRequestParser() = default;

    /**
     * @return 0; 1, logged at level 7, when the chunk is no HTTP request or its URL, which may be
     * missing, can't be split; so also when there is no memory for the Content-Type
     */
    int parse(const char* pData, int nLength);

    /** Without data when the URL has none. */
    std::string_view getPath() const;
    std::string_view getQuery() const;

    /** The last piece of the body in the chunk; without data when there is none. */
    std::string_view getBody() const
    {
        return m_body;
    }

    /** As the header says, 0 without one; beyond the range of int it is the range's end. */
    int getContentLength() const
    {
        return m_nContentLength;
    }

    /** The header's value, whole; empty without the header. */
    const std::string& getContentType() const
    {
        return m_strContentType;
    }

    /**
     * The next key and value of the query, byte for byte: nothing is decoded.
     *
     * Deliberate: a query that ends with '&' keeps it in the last value; an empty key or value ends
     * the iteration; of "a=b=c" the key is "b"; a word without '=' becomes the value of the key
     * that follows, which then begins with the word.
     * @return false when there is no further pair; both are non-empty otherwise
     */
    bool nextParam(std::string_view& key, std::string_view& value);

private:
    static const http_parser_settings& settings();
    static int onUrl(http_parser* pState, const char* pAt, size_t uLength);
    static int onHeaderField(http_parser* pState, const char* pAt, size_t uLength);
    static int onHeaderValue(http_parser* pState, const char* pAt, size_t uLength);
    static int onBody(http_parser* pState, const char* pAt, size_t uLength);

    std::string_view urlPart(http_parser_url_fields eField) const;

    bool m_bContentType = false; // the value to come is the Content-Type's
    bool m_bContentLength = false;
    std::string_view m_url;
    std::string m_strContentType;
    int m_nContentLength = 0;
    std::string_view m_body;
    http_parser m_state{};
    http_parser_url m_urlParts{};
    std::string_view m_query; // what nextParam walks over
    size_t m_uQueryPos = 0;
};
