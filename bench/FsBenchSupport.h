// What the files benchmarks share: a temporary folder removed with its
// contents, the walk's tree and a set of file-name pairs.
#ifndef KORVANE_FS_BENCH_SUPPORT_H
#define KORVANE_FS_BENCH_SUPPORT_H

#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

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

// The walk's tree: 40 folders of 10 folders of 125 files, 50,440 entries.
constexpr int kTopFolders = 40;
constexpr int kSubFolders = 10;
constexpr int kFilesPerFolder = 125;
constexpr long kEntries = kTopFolders + kTopFolders * kSubFolders * (1 + kFilesPerFolder);

inline void makeFolder(const std::string& path) {
    if (mkdir(path.c_str(), 0755) != 0)
        throw std::runtime_error("mkdir failed: " + path);
}

inline void makeFile(const std::string& path) {
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
    ScratchFolder m_scratch;
};

inline const WalkTree& tree() {
    static const WalkTree built;
    return built;
}

// Every ordered pair of a set of names as they appear in real folders:
// numbered photos and logs, versions, dates, plain words.
inline std::vector<std::pair<std::string, std::string>> namePairs() {
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

} // namespace fsbench

#endif
