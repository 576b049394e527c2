// The data source as a client meets it, through DS_Entry: one capability
// round trip (each call hops onto the data source's loop thread and back),
// and one whole scan from MSG_ENABLEDS to MSG_XFERREADY.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "DataSourceManager.h"
#include "ProcessResources.h"
#include "support/Triplets.h"

namespace {

using namespace zentary;
using namespace twain;

std::unique_ptr<DataSourceManager> openSource()
{
    setenv("ZENTARY_SCANNER", "emulator", 1);
    setenv("ZENTARY_UI", "headless", 1);
    std::string error;
    auto source = DataSourceManager::load(ZENTARY_DS_PATH, &error);
    if (!source || source->open() != TWRC_SUCCESS) std::abort();
    return source;
}

void capabilityRoundTrip(benchmark::State& state)
{
    auto source = openSource();
    TW_INT16 dpi = 300;
    for (auto _ : state) {
        TW_CAPABILITY cap{ICAP_XRESOLUTION, 0, nullptr};
        source->call(DG_CONTROL, DAT_CAPABILITY, MSG_GET, &cap);
        std::free(cap.hContainer);
        dpi = dpi == 300 ? 600 : 300;
        test::setOneValue(*source, ICAP_XRESOLUTION, TWTY_FIX32, test::fix32Item(dpi));
        benchmark::DoNotOptimize(test::currentOneValue(*source, ICAP_XRESOLUTION));
    }
    // Three triplets a round.
    state.counters["per_call_us"] = benchmark::Counter(
        3.0 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(capabilityRoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);

// Open, enable without the dialog, and wait for the transfer to be ready:
// 300 dpi colour, letter page, emulator unthrottled. Includes the fixed
// 0.3 s buffer reset before the lock and the 0.25 s announcement delay.
void enableToTransferReady(benchmark::State& state)
{
    for (auto _ : state) {
        auto source = openSource();
        test::setOneValue(*source, ICAP_XRESOLUTION, TWTY_FIX32, test::fix32Item(300));
        auto start = std::chrono::steady_clock::now();
        test::enable(*source, false);
        if (source->waitForMessage(std::chrono::seconds(30)) != MSG_XFERREADY) std::abort();
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        test::pending(*source, MSG_ENDXFER);
        test::disable(*source);
    }
}
BENCHMARK(enableToTransferReady)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

int main(int argc, char** argv)
{
    const zentary::bench::ProcessResources before;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    zentary::bench::reportResources(before);
    return 0;
}
