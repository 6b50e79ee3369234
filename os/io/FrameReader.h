// One frame read from a serial port: hunts the byte stream for a header and
// returns exactly one frame, a short frame when the line goes quiet inside
// one, or nothing. The bytes come from a ByteSource, so the hunt can be
// driven without a line (the fuzzer feeds it a stream held in memory).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>

namespace korvane::io {

// What became of one transfer.
struct Transfer {
    bool abandoned; // its time slice ended before it did
    ssize_t result; // bytes moved otherwise, or 0 or -1 when none were
};

// Where a frame read takes its bytes.
class ByteSource {
public:
    virtual ~ByteSource() = default;
    // Receives at most `length` bytes into `buffer` without waiting for more.
    virtual Transfer receive(unsigned char* buffer, size_t length) = 0;
    // True when bytes may be received within `milliseconds`.
    virtual bool readable(int milliseconds) = 0;
};

// State of one frame read: everything received so far, the part of it that
// belongs to the frame, and whether the header has been seen.
class FrameReader {
public:
    FrameReader(ByteSource& source, int size, const unsigned char* header, int headerLength);

    bool usable() const { return m_accumulated && m_transfer; }

    // Reads one frame into `out` (room for `size` bytes): `size` for a whole
    // frame, the bytes of a short frame, 0 when no frame began, -1 when the
    // header was not found within `size` bytes or a transfer was abandoned.
    int read(unsigned char* out, int milliseconds);

private:
    int nextRequestLength() const;
    void append(int count);
    int quietLineResult(unsigned char* out) const;
    void copyTail(unsigned char* out, int count) const;

    ByteSource& m_source;
    const int m_size;
    const unsigned char* const m_header;
    const int m_headerLength;
    static constexpr int kEmptyReadableRoundsAllowed = 3;

    bool m_headerFound;
    int m_emptyReadableRounds = 0; // readable by select, then nothing read
    int m_frameLength = 0;         // bytes of the frame so far
    int m_receivedLength = 0;      // bytes received so far
    std::unique_ptr<unsigned char[]> m_accumulated;
    std::unique_ptr<unsigned char[]> m_transfer;
};

} // namespace korvane::io
