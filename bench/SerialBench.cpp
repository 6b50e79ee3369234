// Frame reading over a pseudo-terminal at a steady stream: a separate
// feeder process keeps the line full of frames, so the figures are the
// reader's own (its thread and the asynchronous I/O helpers; the process CPU
// time is measured, which leaves the feeder out).
//
// Arguments: frame size, header length (0: plain reads), noise bytes before
// each frame (hunted one byte at a time).
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <vector>

#include "PseudoTerminal.h"
#include "korvane/io.h"

namespace {

const unsigned char kHeader[] = {0xAA, 0x55};

std::vector<unsigned char> streamUnit(size_t frameSize, size_t headerLength, size_t noise) {
    std::vector<unsigned char> unit(noise, 0x00);
    for (size_t i = 0; i < frameSize; ++i)
        unit.push_back(i < headerLength ? kHeader[i] : static_cast<unsigned char>(0x10 + i % 64));
    return unit;
}

// Writes `unit` to the line again and again until killed.
pid_t startFeeder(int master, const std::vector<unsigned char>& unit) {
    std::vector<unsigned char> block;
    while (block.size() < 4096)
        block.insert(block.end(), unit.begin(), unit.end());
    const pid_t feeder = fork();
    if (feeder == 0) {
        for (;;) {
            if (write(master, block.data(), block.size()) < 0)
                _exit(1);
        }
    }
    return feeder;
}

void stopFeeder(pid_t feeder) {
    if (feeder <= 0)
        return;
    kill(feeder, SIGKILL);
    waitpid(feeder, nullptr, 0);
}

void BM_SerialFrameRead(benchmark::State& state) {
    const int frameSize = static_cast<int>(state.range(0));
    const int headerLength = static_cast<int>(state.range(1));
    const size_t noise = static_cast<size_t>(state.range(2));
    iotest::PseudoTerminal line;
    int port = os_serial_open(line.slavePath(), 115200, 0, 0, B115200);
    if (port == -1) {
        state.SkipWithError("cannot open the pseudo-terminal");
        return;
    }
    const pid_t feeder =
        startFeeder(line.master(), streamUnit(static_cast<size_t>(frameSize), static_cast<size_t>(headerLength), noise));
    std::vector<unsigned char> frame(static_cast<size_t>(frameSize));
    const void* header = headerLength > 0 ? kHeader : nullptr;
    // Settle on a frame boundary before measuring.
    os_serial_read(port, frame.data(), frameSize, kHeader, 2, 1000);
    // A read fails (-1) when a 5 ms slice runs out on a busy machine, or when
    // it started one byte into a frame: the next header then ends exactly at
    // byte `size`, which the reader does not recognise, and every later read
    // would fail the same way. One single-byte read moves the stream on;
    // failures are counted, not treated as errors.
    int64_t frames = 0;
    int64_t failed = 0;
    unsigned char skipped;
    for (auto _ : state) {
        const int result = os_serial_read(port, frame.data(), frameSize, header, headerLength, 1000);
        if (result == -1) {
            ++failed;
            os_serial_read(port, &skipped, 1, nullptr, 0, 1000);
            continue;
        }
        if (result != frameSize || (headerLength > 0 && frame[0] != kHeader[0])) {
            state.SkipWithError("short or misaligned frame");
            break;
        }
        ++frames;
    }
    state.counters["failed_reads"] = benchmark::Counter(static_cast<double>(failed));
    stopFeeder(feeder);
    os_serial_close(&port);
    state.SetItemsProcessed(frames);
    state.SetBytesProcessed(frames * frameSize);
}

BENCHMARK(BM_SerialFrameRead)
    ->ArgNames({"size", "header", "noise"})
    ->Args({16, 2, 0})
    ->Args({64, 2, 0})
    ->Args({256, 2, 0})
    ->Args({64, 0, 0})
    ->Args({64, 2, 4})
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->MinTime(1.0);

} // namespace
