// Lists a folder tree in natural order ("take9" before "take10"), each
// folder's entries under it. Usage: natural_listing [folder]; without one it
// lists a small tree it makes for the purpose.
#include <korvane/korvane.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

// A sample tree in a fresh temporary folder.
std::string make_sample_tree() {
    char folder[] = "/tmp/natural_listing_XXXXXX";
    if (mkdtemp(folder) == nullptr)
        return {};
    const std::string root = folder;
    for (const char* path : {"shots/take10.raw", "shots/take9.raw", "shots/take1.raw", "notes.txt", "a2/x", "a10/x"}) {
        const std::string full = root + "/" + path;
        os_folder_create(full.substr(0, full.rfind('/')).c_str());
        os_file_create(full.c_str());
    }
    return root;
}

} // namespace

int main(int argc, char** argv) {
    const bool sample = argc < 2;
    const std::string root = sample ? make_sample_tree() : argv[1];
    if (root.empty() || !os_folder_exist(root.c_str()))
        return 1;

    // Folders get a trailing '/' so a folder's entries sort right after it.
    std::vector<std::string> entries;
    korvane::walk(root, "", [&](const korvane::WalkEntry& entry) {
        if (!entry.path.empty())
            entries.emplace_back(std::string(entry.path) + (entry.folder ? "/" : ""));
    });
    std::sort(entries.begin(), entries.end(), korvane::NaturalLess());
    for (const std::string& entry : entries) {
        const auto depth = std::count(entry.begin(), entry.end() - 1, '/');
        std::printf("%*s%s\n", static_cast<int>(2 * depth), "", entry.substr(entry.rfind('/', entry.size() - 2) + 1).c_str());
    }
    if (sample)
        os_folder_remove(root.c_str(), true);
    return entries.empty() ? 1 : 0;
}
