// The log: a line above the level, which is not written, and one below it, beside an empty call.
#include <benchmark/benchmark.h>

#include "EventBus.h"
#include "Log.h"
#include "LogEvent.h"
#include "Opaque.h"

static const char* const SOURCE_NAME = "bench/LogBench";

namespace {

const uint32_t SERVICE_LAYOUT = 71; // as the service starts its log: level, date, time, thread
const uint32_t SERVICE_LEVEL = 5;

void emptyFunctionCall(benchmark::State& state)
{
    for (auto _ : state) {
        emptyCall();
    }
}

void logLine(benchmark::State& state)
{
    Handler handler; // stands for the sinks
    Log::getInstance().setLevel(SERVICE_LEVEL).setLayout(SERVICE_LAYOUT).setSinks(0);
    EventBus<LogEvent>::subscribe(&handler, &Handler::onEvent);
    const auto u32Level = static_cast<uint32_t>(state.range(0));
    int nClients = 3;
    for (auto _ : state) {
        benchmark::DoNotOptimize(nClients);
        LOG(u32Level, "add video consumer, stream=%d, Total consumer num=%d\n", 0, nClients);
    }
    EventBus<LogEvent>::unsubscribe(&handler, &Handler::onEvent);
    const bool bWritten = 0 != handler.m_nCalls;
    if (bWritten != (u32Level <= SERVICE_LEVEL)) {
        state.SkipWithError("a line was written that is above the level, or the other way round");
    }
}

} // namespace

BENCHMARK(emptyFunctionCall);
BENCHMARK(logLine)->Arg(7)->Arg(5);
