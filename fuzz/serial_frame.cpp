// Frame hunting, driven through the ports' frame reader with the line held in
// memory: a frame size, a header, the most a transfer passes, whether the
// line hung up, and a byte stream decoded from the input. Frames are read
// until the line is quiet, each read checked against a model of the hunt:
// where the header is found, what the frame holds, when the hunt gives up,
// and how many bytes it takes from the line.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "FuzzCheck.h"
#include "os/io/FrameReader.h"

namespace {

// A line holding `stream`, passing at most `chunk` bytes a transfer. Once
// it is used up it is quiet, or, hung up, readable with nothing to read.
class StreamSource : public korvane::io::ByteSource {
public:
    StreamSource(const std::string& stream, size_t chunk, bool hungUp)
        : m_stream(stream), m_chunk(chunk), m_hungUp(hungUp) {}
    korvane::io::Transfer receive(unsigned char* buffer, size_t length) override {
        const size_t count = std::min({length, m_chunk, m_stream.size() - taken});
        std::memcpy(buffer, m_stream.data() + taken, count);
        taken += count;
        return {false, count == 0 ? -1 : static_cast<ssize_t>(count)}; // EAGAIN on an empty line
    }
    bool readable(int) override { return m_hungUp; }
    size_t taken = 0;

private:
    const std::string& m_stream;
    const size_t m_chunk;
    const bool m_hungUp;
};

// What one read of a line holding `stream` (and then quiet) returns in
// `frame`, and how many bytes of the stream it takes.
int expected(const std::string& stream, size_t& used, size_t size, const std::string& header, std::string& frame) {
    const size_t h = header.size();
    size_t end = std::min(h, stream.size()); // bytes taken while hunting
    used = end;
    if (end < h)
        return 0; // the line went quiet inside the header
    for (; h > 0 && (end >= size || stream.compare(end - h, h, header) != 0); used = ++end) {
        if (end >= size || end == stream.size())
            return end >= size ? -1 : 0; // the size test comes before the header comparison
    }
    frame = stream.substr(end - h, size);
    used = end - h + frame.size();
    return static_cast<int>(frame.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A hunt that gives up on a quiet line says so on the standard output.
    static FILE* const quiet = freopen("/dev/null", "w", stdout);
    FUZZ_CHECK(quiet != nullptr);
    if (size < 3)
        return 0;
    const size_t frameSize = 1 + data[0] % 32, chunk = 1 + data[2] % 8;
    const bool hungUp = (data[2] & 0x80) != 0;
    // A header longer than the frame is refused before any read.
    const size_t headerLength = std::min<size_t>({data[1] % 5u, size - 3, frameSize});
    const std::string header(reinterpret_cast<const char*>(data) + 3, headerLength);
    const std::string line(reinterpret_cast<const char*>(data) + 3 + headerLength, size - 3 - headerLength);
    StreamSource source(line, chunk, hungUp);
    for (size_t before = 0;; before = source.taken) {
        size_t used = 0;
        std::string frame;
        const int want = expected(line.substr(before), used, frameSize, header, frame);
        unsigned char buffer[32] = {};
        korvane::io::FrameReader reader(source, static_cast<int>(frameSize),
                                        reinterpret_cast<const unsigned char*>(header.data()),
                                        static_cast<int>(headerLength));
        const int got = reader.read(buffer, 0);
        FUZZ_CHECK(got == want);
        FUZZ_CHECK(frame == std::string(reinterpret_cast<char*>(buffer), got > 0 ? got : 0));
        FUZZ_CHECK(source.taken - before == used);
        if (got == 0)
            return 0;
    }
}
