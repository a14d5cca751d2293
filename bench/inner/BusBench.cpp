// The event bus: publish to 0, 1 and 8 subscribers beside a plain virtual call.
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>

#include "EventBus.h"
#include "Fault.h"
#include "Opaque.h"

namespace {

class BenchEvent : public Event
{
};

/** Linked with a library that counts allocations, which cost nothing where there are none. */
class AllocationCount
{
public:
    explicit AllocationCount(benchmark::State& state) : m_state(state) {}
    AllocationCount(const AllocationCount&) = delete;
    AllocationCount& operator=(const AllocationCount&) = delete;

    /** After the loop. */
    void report()
    {
        m_state.counters["allocations"] =
            static_cast<double>(faultThreadAllocations() - m_ulBefore);
    }

private:
    benchmark::State& m_state;
    const unsigned long m_ulBefore = faultThreadAllocations();
};

void virtualCall(benchmark::State& state)
{
    Handler handler;
    IHandler* pHandler = &handler;
    BenchEvent event;
    for (auto _ : state) {
        benchmark::DoNotOptimize(pHandler); // the class behind the pointer is not known
        benchmark::DoNotOptimize(pHandler->onEvent(&event));
    }
}

void publish(benchmark::State& state)
{
    std::vector<std::unique_ptr<Handler>> vecHandler;
    for (int64_t i = 0; i < state.range(0); ++i) {
        vecHandler.push_back(std::make_unique<Handler>());
        EventBus<BenchEvent>::subscribe(vecHandler.back().get(), &Handler::onEvent);
    }
    BenchEvent event;
    EventBus<BenchEvent>::publish(event); // whatever a thread needs once is there
    AllocationCount allocations(state);
    for (auto _ : state) {
        EventBus<BenchEvent>::publish(event);
    }
    allocations.report();
    for (const auto& pHandler : vecHandler) {
        if (pHandler->m_nCalls != state.iterations() + 1) {
            state.SkipWithError("a handler has missed events");
        }
        EventBus<BenchEvent>::unsubscribe(pHandler.get(), &Handler::onEvent);
    }
}

} // namespace

BENCHMARK(virtualCall);
BENCHMARK(publish)->Arg(0)->Arg(1)->Arg(8);
