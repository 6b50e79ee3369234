// Natural-order comparison of typical file names against glibc's strverscmp.
#include <string.h>


#include <benchmark/benchmark.h>

#include "FsBenchSupport.h"
#include "korvane/system.h"

namespace {

template <class Less>
void compareAll(benchmark::State& state, Less less) {
    const auto pairs = fsbench::namePairs();
    for (auto _ : state)
        for (const auto& [a, b] : pairs)
            benchmark::DoNotOptimize(less(a.c_str(), b.c_str()));
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(pairs.size()));
}

void BM_IntelligentLess(benchmark::State& state) {
    compareAll(state, os_clibrary_string_intelligent_less);
}
BENCHMARK(BM_IntelligentLess);

void BM_Strverscmp(benchmark::State& state) {
    compareAll(state, [](const char* a, const char* b) { return strverscmp(a, b) < 0; });
}
BENCHMARK(BM_Strverscmp);

} // namespace
