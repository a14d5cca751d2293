// A browser's request and a query's parameters, beside the bare parser and a bare search.
#include <cstring>
#include <string>

#include <benchmark/benchmark.h>

#include "CpuClock.h"
#include "HttpRequestParser.h"

namespace {

const char REQUEST[] =
    "GET /snap?stream=0&filename=photo.jpg&mode=correction HTTP/1.1\r\nHost: 192.168.1.1:8080\r\nUser-Agent: Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/114.0.0.0 Safari/537.36\r\nAccept: image/avif,image/webp,image/apng,image/svg+xml,image/*,*/*;q=0.8\r\nReferer: http://192.168.1.1:8080/index.html\r\nAccept-Encoding: gzip, deflate\r\nAccept-Language: en-GB,en;q=0.9\r\nConnection: keep-alive\r\n\r\n";
const int REQUEST_LENGTH = static_cast<int>(sizeof(REQUEST) - 1);

/** The request and its URL through the library alone, which keeps nothing. */
void bareParse(benchmark::State& state)
{
    http_parser_settings settings{};
    http_parser_settings_init(&settings);
    struct Url
    {
        const char* pAt;
        size_t uLength;
    } url{};
    settings.on_url = [](http_parser* pState, const char* pAt, size_t uLength) {
        *static_cast<Url*>(pState->data) = {pAt, uLength};
        return 0;
    };
    for (auto _ : state) {
        http_parser parser{};
        http_parser_init(&parser, HTTP_REQUEST);
        parser.data = &url;
        http_parser_url parts{};
        if (static_cast<size_t>(REQUEST_LENGTH) !=
                http_parser_execute(&parser, &settings, REQUEST, sizeof(REQUEST) - 1) ||
            0 != http_parser_parse_url(url.pAt, url.uLength, 0, &parts)) {
            state.SkipWithError("the request was refused");
            break;
        }
        benchmark::DoNotOptimize(parts);
    }
}

void parse(benchmark::State& state)
{
    for (auto _ : state) {
        HttpRequestParser parser;
        if (0 != parser.parse(REQUEST, REQUEST_LENGTH)) {
            state.SkipWithError("the request was refused");
            break;
        }
        benchmark::DoNotOptimize(parser.getPath());
    }
}

const int PARAMETERS = 1000; // so many that the clock's own cost does not count

std::string longQuery()
{
    std::string strQuery;
    for (int i = 0; i < PARAMETERS; ++i) {
        strQuery += (strQuery.empty() ? "" : "&") + std::string("name=value");
    }
    return strQuery;
}

void bareSearch(benchmark::State& state)
{
    const std::string strQuery = longQuery();
    for (auto _ : state) {
        const double dStart = threadCpuSeconds();
        const char* pAt = strQuery.data();
        const char* const pEnd = pAt + strQuery.size();
        while (nullptr != pAt) {
            const char* pEqual =
                static_cast<const char*>(memchr(pAt, '=', static_cast<size_t>(pEnd - pAt)));
            pAt = static_cast<const char*>(memchr(pEqual, '&', static_cast<size_t>(pEnd - pEqual)));
            benchmark::DoNotOptimize(pAt);
        }
        state.SetIterationTime(threadCpuSeconds() - dStart);
    }
    state.counters["parts"] = PARAMETERS;
}

void nextParam(benchmark::State& state)
{
    const std::string strRequest = "GET /x?" + longQuery() + " HTTP/1.1\r\n\r\n";
    for (auto _ : state) {
        HttpRequestParser parser;
        (void)parser.parse(strRequest.data(),
                           static_cast<int>(strRequest.size())); // looked at below
        int nFound = 0;
        std::string_view key;
        std::string_view value;
        const double dStart = threadCpuSeconds();
        while (parser.nextParam(key, value)) {
            ++nFound;
        }
        state.SetIterationTime(threadCpuSeconds() - dStart);
        if (PARAMETERS != nFound) {
            state.SkipWithError("parameters are missing");
            break;
        }
    }
    state.counters["parts"] = PARAMETERS;
}

} // namespace

BENCHMARK(bareParse);
BENCHMARK(parse);
BENCHMARK(bareSearch)->UseManualTime();
BENCHMARK(nextParam)->UseManualTime();
