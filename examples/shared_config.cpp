// A configuration in named shared memory, read by several processes and
// written by one, under a named reader-writer lock. Readers never see a
// half-written configuration: the text always matches the version.
#include <korvane/korvane.hpp>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "child_process.hpp"

namespace {

struct Config {
    int version;
    char text[64];
};
constexpr int kLastVersion = 200;
constexpr int kReaders = 3;

std::string text_of(int version) { return "exposure=" + std::to_string(version * 10) + "us"; }

int read_until_last(const std::string& prefix) {
    auto memory = korvane::SharedMemory::open(prefix + "config");
    korvane::SharedMutex lock(prefix + "lock");
    if (!memory || !lock.usable())
        return 1;
    const auto* config = static_cast<const Config*>(memory->data());
    for (int seen = 0; seen < kLastVersion;) {
        std::shared_lock<korvane::SharedMutex> reading(lock);
        if (text_of(config->version) != config->text)
            return 1; // a torn read: the lock failed
        seen = config->version;
    }
    return 0;
}

} // namespace

int main() {
    korvane::SyncManager manager;
    const std::string prefix = "kv_config_" + std::to_string(getpid()) + "_";
    auto memory = korvane::SharedMemory::create(prefix + "config", sizeof(Config));
    korvane::SharedMutex lock(prefix + "lock");
    if (!manager.running() || !memory || !lock.usable())
        return 1;
    auto* config = static_cast<Config*>(memory->data());
    std::snprintf(config->text, sizeof config->text, "%s", text_of(0).c_str());

    pid_t readers[kReaders];
    for (pid_t& reader : readers)
        reader = start_child([&] { return read_until_last(prefix); });
    for (int version = 1; version <= kLastVersion; ++version) {
        std::lock_guard<korvane::SharedMutex> writing(lock);
        std::memset(config->text, 0, sizeof config->text);
        config->version = version;
        std::snprintf(config->text, sizeof config->text, "%s", text_of(version).c_str());
    }
    bool ok = true;
    for (pid_t reader : readers)
        ok = child_succeeded(reader) && ok;
    memory->close(true);
    std::printf("%d readers followed %d versions: %s\n", kReaders, kLastVersion, ok ? "consistent" : "FAILED");
    return ok ? 0 : 1;
}
