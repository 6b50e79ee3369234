// The filesystem walk against nftw over the same tree of 50,440 entries
// (40 folders of 10 folders of 125 files), neither following links.
#include <ftw.h>

#include <string>

#include <benchmark/benchmark.h>

#include "FsBenchSupport.h"
#include "korvane/fs.h"
#include "korvane/interfaces.h"

namespace {

using fsbench::kEntries;
using fsbench::tree;

class Counter : public IWalkThroughCallback {
public:
    void onFile(const char* relative, const char*) override {
        benchmark::DoNotOptimize(relative);
        ++entries;
    }
    void onFolder(const char* relative, const char*) override {
        benchmark::DoNotOptimize(relative);
        ++entries;
    }
    long entries = 0;
};

void reportEntries(benchmark::State& state, long counted) {
    // The starting folder is reported too.
    if (counted != kEntries + 1)
        state.SkipWithError("wrong number of entries");
    state.SetItemsProcessed(state.iterations() * counted);
}

void BM_WalkThrough(benchmark::State& state) {
    const std::string& root = tree().root();
    long counted = 0;
    for (auto _ : state) {
        Counter counter;
        os_filesystem_walk_through("", root.c_str(), &counter);
        counted = counter.entries;
    }
    reportEntries(state, counted);
}
BENCHMARK(BM_WalkThrough)->Unit(benchmark::kMillisecond);

long nftwEntries = 0;

void BM_Nftw(benchmark::State& state) {
    const std::string& root = tree().root();
    for (auto _ : state) {
        nftwEntries = 0;
        nftw(
            root.c_str(),
            [](const char* path, const struct stat*, int, struct FTW*) {
                benchmark::DoNotOptimize(path);
                ++nftwEntries;
                return 0;
            },
            64, FTW_PHYS);
    }
    reportEntries(state, nftwEntries);
}
BENCHMARK(BM_Nftw)->Unit(benchmark::kMillisecond);

} // namespace
