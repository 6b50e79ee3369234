// A temporary folder for the files benchmarks, removed with its contents.
#ifndef KORVANE_FS_BENCH_SUPPORT_H
#define KORVANE_FS_BENCH_SUPPORT_H

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>

#include <stdexcept>
#include <string>

namespace fsbench {

class ScratchFolder {
public:
    explicit ScratchFolder(const char* tag) {
        const char* base = getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/korvane-bench-" +
                              tag + "-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        m_path = pattern;
    }
    ~ScratchFolder() {
        nftw(
            m_path.c_str(), [](const char* path, const struct stat*, int, struct FTW*) { return remove(path); }, 64,
            FTW_DEPTH | FTW_PHYS);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

} // namespace fsbench

#endif
