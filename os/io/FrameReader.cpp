#include "os/io/FrameReader.h"

#include <cstdio>
#include <cstring>
#include <new>

namespace korvane::io {

FrameReader::FrameReader(ByteSource& source, int size, const unsigned char* header, int headerLength)
    : m_source(source), m_size(size), m_header(header), m_headerLength(headerLength),
      m_headerFound(headerLength == 0 || header == nullptr),
      m_accumulated(new (std::nothrow) unsigned char[2 * static_cast<size_t>(size) + 1]),
      m_transfer(new (std::nothrow) unsigned char[static_cast<size_t>(size) + 1]) {}

int FrameReader::read(unsigned char* out, int milliseconds) {
    while (m_frameLength < m_size) {
        const Transfer transfer = m_source.receive(m_transfer.get(), static_cast<size_t>(nextRequestLength()));
        if (transfer.abandoned)
            return -1;
        const ssize_t received = transfer.result;
        if (received < 1) {
            // Nothing there on the non-blocking port: wait for more, or give
            // up when the line stays quiet. A line that hung up stays
            // readable to select but every read comes back empty, which would
            // spin for ever: after a few readable-but-empty rounds in a row
            // the read ends as on a quiet line.
            if (m_emptyReadableRounds < kEmptyReadableRoundsAllowed && m_source.readable(milliseconds)) {
                ++m_emptyReadableRounds;
                continue;
            }
            return quietLineResult(out);
        }
        m_emptyReadableRounds = 0;
        append(static_cast<int>(received));
        if (m_headerFound) {
            m_frameLength += static_cast<int>(received);
            continue;
        }
        if (m_receivedLength < m_headerLength)
            continue;
        // Checked before the header comparison, so a header that ends exactly
        // at byte `size` is not recognised; existing callers depend on this
        // order.
        if (m_receivedLength >= m_size)
            return -1;
        if (std::memcmp(m_accumulated.get() + m_receivedLength - m_headerLength, m_header,
                        static_cast<size_t>(m_headerLength)) == 0) {
            m_headerFound = true;
            m_frameLength = m_headerLength;
        }
    }
    copyTail(out, m_size);
    return m_size;
}

// While hunting, the first headerLength bytes are asked for together and then
// the header is searched for one byte at a time.
int FrameReader::nextRequestLength() const {
    if (!m_headerFound && m_headerLength > 0)
        return m_receivedLength < m_headerLength ? m_headerLength - m_receivedLength : 1;
    return m_size - m_frameLength;
}

void FrameReader::append(int count) {
    std::memcpy(m_accumulated.get() + m_receivedLength, m_transfer.get(), static_cast<size_t>(count));
    m_receivedLength += count;
}

int FrameReader::quietLineResult(unsigned char* out) const {
    if (m_frameLength > 0) {
        copyTail(out, m_frameLength); // a short frame
        return m_frameLength;
    }
    if (m_receivedLength > 0)
        puts("The frame header may be truncated.");
    return 0;
}

void FrameReader::copyTail(unsigned char* out, int count) const {
    if (count > 0)
        std::memcpy(out, m_accumulated.get() + m_receivedLength - count, static_cast<size_t>(count));
}

} // namespace korvane::io
