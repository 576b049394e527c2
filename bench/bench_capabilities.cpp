// Capability negotiation on the store itself: the MSG_GET, MSG_SET and
// MSG_GETCURRENT of ICAP_XRESOLUTION that every client sends, each alone and
// as the three-call round. Run with repetitions; the median row is the
// figure to quote (per call for the single messages).
#include <benchmark/benchmark.h>

#include <cstring>

#include "capabilities/Capabilities.h"
#include "twain/Manager.h"

namespace {

using namespace zentary;

std::unique_ptr<Capabilities> store()
{
    std::string error;
    auto s = Capabilities::initWithModel("Tarvell Zentary Q300 series", false, ZENTARY_CAPABILITIES_DIR, &error);
    if (!s) std::abort();
    return s;
}

// A client's TW_ONEVALUE of TW_FIX32 `whole`.0, made once.
TW_HANDLE resolution(std::int16_t whole)
{
    TW_HANDLE h = Manager::allocate(sizeof(TW_ONEVALUE));
    auto* p = static_cast<std::uint8_t*>(Manager::lock(h));
    TW_UINT16 type = twain::TWTY_FIX32;
    TW_FIX32 value{whole, 0};
    std::memcpy(p + offsetof(TW_ONEVALUE, ItemType), &type, 2);
    std::memcpy(p + offsetof(TW_ONEVALUE, Item), &value, 4);
    Manager::unlock(h);
    return h;
}

void get(Capabilities& s, bool current)
{
    TW_CAPABILITY cap{twain::ICAP_XRESOLUTION, 0, nullptr};
    TW_UINT16 cc = 0;
    TW_UINT16 rc = current ? s.getCurrentTwain(&cap, &cc) : s.getTwain(&cap, &cc);
    benchmark::DoNotOptimize(rc);
    Manager::free(cap.hContainer);  // the client disposes of it
}

// Alternates 300 and 600 dpi, so every set really changes the value and
// propagates to ICAP_YRESOLUTION.
void set(Capabilities& s, TW_HANDLE (&values)[2], std::size_t& turn)
{
    TW_CAPABILITY cap{twain::ICAP_XRESOLUTION, twain::TWON_ONEVALUE, values[turn++ & 1]};
    TW_UINT16 cc = 0;
    benchmark::DoNotOptimize(s.setTwain(&cap, &cc));
}

void BM_GetTwain(benchmark::State& state)
{
    auto s = store();
    for (auto _ : state) get(*s, false);
}

void BM_SetTwain(benchmark::State& state)
{
    auto s = store();
    TW_HANDLE values[2] = {resolution(600), resolution(300)};
    std::size_t turn = 0;
    for (auto _ : state) set(*s, values, turn);
    for (auto h : values) Manager::free(h);
}

void BM_GetCurrentTwain(benchmark::State& state)
{
    auto s = store();
    for (auto _ : state) get(*s, true);
}

void BM_GetSetGetCurrent(benchmark::State& state)
{
    auto s = store();
    TW_HANDLE values[2] = {resolution(600), resolution(300)};
    std::size_t turn = 0;
    for (auto _ : state) {
        get(*s, false);
        set(*s, values, turn);
        get(*s, true);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * 3);  // calls
    for (auto h : values) Manager::free(h);
}

}  // namespace

BENCHMARK(BM_GetTwain)->Repetitions(9)->ReportAggregatesOnly(true);
BENCHMARK(BM_SetTwain)->Repetitions(9)->ReportAggregatesOnly(true);
BENCHMARK(BM_GetCurrentTwain)->Repetitions(9)->ReportAggregatesOnly(true);
BENCHMARK(BM_GetSetGetCurrent)->Repetitions(9)->ReportAggregatesOnly(true);
BENCHMARK_MAIN();
