// Frame hunting over a pseudo-terminal: a frame size, a header and a byte
// stream decoded from the input go down the line, and frames are read until
// it is quiet. Each read is checked against a model of the hunt: where the
// header is found, what the frame holds, when the hunt gives up.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include "FuzzCheck.h"
#include "korvane/io.h"

namespace {

// What one read of a line holding `stream` (and then quiet) returns in
// `frame`, and how many bytes of the stream it takes.
int expected(const std::string& stream, size_t& used, size_t size, const std::string& header, std::string& frame) {
    const size_t h = header.size();
    size_t end = std::min(h, stream.size()); // bytes taken while hunting
    used = h > size ? 0 : end;
    if (h > size || end < h)
        return h > size ? -1 : 0; // a header longer than the frame; or the line went quiet
    for (; h > 0 && (end >= size || stream.compare(end - h, h, header) != 0); used = ++end) {
        if (end >= size || end == stream.size())
            return end >= size ? -1 : 0; // the size test comes before the header comparison
    }
    frame = stream.substr(end - h, size);
    used = end - h + frame.size();
    return static_cast<int>(frame.size());
}

// Sends `stream` down the line and reads frames until it is quiet; false on
// the first read that differs from the model. True also when the stream is
// not judged: it did not arrive whole within 5 s, or a transfer outran its
// 5 ms slice (refused by design) on a busy machine.
bool readsAsModelled(int master, int port, std::string stream, size_t frameSize, const std::string& header) {
    os_serial_purge(port, 1); // what the last input left unread
    FUZZ_CHECK(write(master, stream.data(), stream.size()) == static_cast<ssize_t>(stream.size()));
    // The line passes the bytes on asynchronously, late on a busy machine.
    for (int queued = -1, polls = 0; ioctl(port, FIONREAD, &queued) == 0 && queued != static_cast<int>(stream.size()); ++polls) {
        if (polls == 50000)
            return true;
        usleep(100);
    }
    for (size_t used = 1; used > 0;) {
        std::string frame;
        const int want = expected(stream, used, frameSize, header, frame);
        char buffer[64] = {};
        const int got = os_serial_read(port, buffer, static_cast<int>(frameSize), header.data(), static_cast<int>(header.size()), 0);
        if (got == -1 && want != -1)
            return true;
        if (got != want || frame != std::string(buffer, got > 0 ? got : 0))
            return false;
        stream.erase(0, used);
        used = got == 0 ? 0 : used;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int master = posix_openpt(O_RDWR | O_NOCTTY);
    static const int port = (grantpt(master), unlockpt(master), os_serial_open(ptsname(master), 115200, 0, 0, B115200));
    if (size < 2)
        return 0;
    const size_t frameSize = 1 + data[0] % 32;
    const std::string header(reinterpret_cast<const char*>(data) + 2, std::min<size_t>(data[1] % 5, size - 2));
    const std::string stream(reinterpret_cast<const char*>(data) + 2 + header.size(), std::min<size_t>(size - 2 - header.size(), 512));
    // The reader's quiet test is timed: a process descheduled for longer than
    // a slice sees a quiet line where there was none. Only a difference that
    // every one of three runs of the input shows is a finding.
    bool modelled = false;
    for (int attempt = 0; attempt < 3 && !modelled; ++attempt)
        modelled = readsAsModelled(master, port, stream, frameSize, header);
    FUZZ_CHECK(modelled);
    return 0;
}
