// Natural-order comparison of typical file names against glibc's strverscmp.
#include <string.h>

#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "korvane/system.h"

namespace {

// Every ordered pair of a set of names as they appear in real folders:
// numbered photos and logs, versions, dates, plain words.
std::vector<std::pair<std::string, std::string>> makePairs() {
    std::vector<std::string> names;
    for (int i : {1, 2, 9, 10, 11, 99, 100, 1234})
        names.push_back("IMG_" + std::to_string(i) + ".jpg");
    for (int i : {1, 7, 10, 12})
        names.push_back("track" + std::to_string(i) + " - Artist.mp3");
    for (const char* name : {"report-2021-03-15.pdf", "report-2021-11-02.pdf", "report-2022-01-09.pdf",
                             "libfoo-1.2.10.tar.gz", "libfoo-1.2.9.tar.gz", "libfoo-1.10.0.tar.gz", "README.md",
                             "readme.txt", "Makefile", "main.cpp", "main2.cpp", "notes", "server.log.3",
                             "server.log.12", "frame000123.png", "frame000124.png"})
        names.emplace_back(name);
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const std::string& a : names)
        for (const std::string& b : names)
            pairs.emplace_back(a, b);
    return pairs;
}

template <class Less>
void compareAll(benchmark::State& state, Less less) {
    const auto pairs = makePairs();
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
