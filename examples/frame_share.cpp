// A producer and a consumer process share a frame buffer in named shared
// memory. The producer fills a frame and sets the "frame ready" event; the
// consumer checks it and sets "frame taken" so the next one may be written.
#include <korvane/korvane.hpp>

#include <chrono>
#include <cstdio>
#include <numeric>
#include <string>

#include "child_process.hpp"

namespace {

struct Frame {
    int number;
    int checksum;
    unsigned char pixels[4096];
};
constexpr int kFrames = 10;
constexpr auto kPatience = std::chrono::seconds(5);

int checksum(const Frame& frame) { return std::accumulate(frame.pixels, frame.pixels + sizeof frame.pixels, 0); }

int consume(const std::string& prefix) {
    auto memory = korvane::SharedMemory::open(prefix + "frames");
    korvane::Event ready(prefix + "ready", false, false), taken(prefix + "taken", false, false);
    if (!memory || !ready.usable() || !taken.usable())
        return 1;
    const auto* frame = static_cast<const Frame*>(memory->data());
    for (int expected = 0; expected < kFrames; ++expected) {
        if (!ready.wait_for(kPatience) || frame->number != expected || checksum(*frame) != frame->checksum)
            return 1;
        std::printf("consumer: frame %d, checksum %d\n", frame->number, frame->checksum);
        taken.set();
    }
    return 0;
}

} // namespace

int main() {
    korvane::SyncManager manager; // named events need one manager on the machine
    const std::string prefix = "kv_frames_" + std::to_string(getpid()) + "_";
    auto memory = korvane::SharedMemory::create(prefix + "frames", sizeof(Frame));
    korvane::Event ready(prefix + "ready", false, false), taken(prefix + "taken", false, false);
    if (!manager.running() || !memory || !ready.usable() || !taken.usable())
        return 1;

    const pid_t consumer = start_child([&] { return consume(prefix); });
    auto* frame = static_cast<Frame*>(memory->data());
    bool delivered = true;
    for (int number = 0; number < kFrames && delivered; ++number) {
        frame->number = number;
        for (unsigned i = 0; i < sizeof frame->pixels; ++i)
            frame->pixels[i] = static_cast<unsigned char>(i * number);
        frame->checksum = checksum(*frame);
        ready.set();
        delivered = taken.wait_for(kPatience);
    }
    memory->close(true);
    const bool ok = child_succeeded(consumer) && delivered;
    std::printf("producer: %s\n", ok ? "all frames delivered" : "FAILED");
    return ok ? 0 : 1;
}
