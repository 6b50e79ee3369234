// os_file_copy of a 64 MiB file against a plain 8192-byte read/write loop.
#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "FsBenchSupport.h"
#include "korvane/fs.h"

namespace {

constexpr size_t kFileSize = 64u << 20;

class CopyFiles {
public:
    CopyFiles() : m_scratch("copy"), source(m_scratch.path() + "/source"), destination(m_scratch.path() + "/copy") {
        std::vector<char> block(1 << 20);
        for (size_t i = 0; i < block.size(); ++i)
            block[i] = static_cast<char>(i * 31 + i / 4096);
        const int fd = open(source.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        for (size_t written = 0; written < kFileSize; written += block.size())
            if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size()))
                throw std::runtime_error("cannot write the source file");
        close(fd);
    }

private:
    fsbench::ScratchFolder m_scratch;

public:
    const std::string source;
    const std::string destination;
};

const CopyFiles& files() {
    static const CopyFiles made;
    return made;
}

bool plainCopy(const char* source, const char* destination) {
    const int in = open(source, O_RDONLY);
    const int out = open(destination, O_RDWR | O_CREAT | O_TRUNC, 0777);
    char buffer[8192];
    bool copied = in >= 0 && out >= 0;
    while (copied) {
        const ssize_t count = read(in, buffer, sizeof buffer);
        if (count <= 0)
            break;
        copied = write(out, buffer, count) == count;
    }
    close(out);
    close(in);
    return copied;
}

template <bool (*Copy)(const char*, const char*)>
void BM_Copy(benchmark::State& state) {
    const CopyFiles& paths = files();
    for (auto _ : state)
        if (!Copy(paths.source.c_str(), paths.destination.c_str()))
            state.SkipWithError("copy failed");
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFileSize));
}
BENCHMARK_TEMPLATE(BM_Copy, os_file_copy)->Name("BM_OsFileCopy")->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Copy, plainCopy)->Name("BM_PlainCopyLoop")->Unit(benchmark::kMillisecond);

} // namespace
