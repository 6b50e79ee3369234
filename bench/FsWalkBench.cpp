// The filesystem walk against nftw over the same tree of 50,440 entries
// (40 folders of 10 folders of 125 files), neither following links.
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>

#include "FsBenchSupport.h"
#include "korvane/fs.h"
#include "korvane/interfaces.h"

namespace {

constexpr int kTopFolders = 40;
constexpr int kSubFolders = 10;
constexpr int kFilesPerFolder = 125;
constexpr long kEntries = kTopFolders + kTopFolders * kSubFolders * (1 + kFilesPerFolder);

void makeFolder(const std::string& path) {
    if (mkdir(path.c_str(), 0755) != 0)
        throw std::runtime_error("mkdir failed: " + path);
}

void makeFile(const std::string& path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        throw std::runtime_error("open failed: " + path);
    close(fd);
}

class WalkTree {
public:
    WalkTree() : m_scratch("walk") {
        for (int top = 0; top < kTopFolders; ++top) {
            const std::string topPath = m_scratch.path() + "/dir" + std::to_string(top);
            makeFolder(topPath);
            for (int sub = 0; sub < kSubFolders; ++sub) {
                const std::string subPath = topPath + "/sub" + std::to_string(sub);
                makeFolder(subPath);
                for (int file = 0; file < kFilesPerFolder; ++file)
                    makeFile(subPath + "/file_" + std::to_string(file) + ".dat");
            }
        }
    }
    const std::string& root() const { return m_scratch.path(); }

private:
    fsbench::ScratchFolder m_scratch;
};

const WalkTree& tree() {
    static const WalkTree built;
    return built;
}

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
