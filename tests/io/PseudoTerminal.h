// A pseudo-terminal pair for serial-port tests and benchmarks: the slave's
// path is what the code under test opens as its device, the master plays the
// other end of the line.
#ifndef KORVANE_TESTS_PSEUDO_TERMINAL_H
#define KORVANE_TESTS_PSEUDO_TERMINAL_H

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

namespace iotest {

class PseudoTerminal {
public:
    PseudoTerminal() {
        m_master = posix_openpt(O_RDWR | O_NOCTTY);
        if (m_master < 0 || grantpt(m_master) != 0 || unlockpt(m_master) != 0)
            throw std::runtime_error("no pseudo-terminal");
        char name[128];
        if (ptsname_r(m_master, name, sizeof name) != 0)
            throw std::runtime_error("no pseudo-terminal name");
        m_slavePath = name;
    }
    ~PseudoTerminal() { close(m_master); }
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    const char* slavePath() const { return m_slavePath.c_str(); }
    int master() const { return m_master; }

    // Feeds bytes into the line as if the far end had sent them.
    bool send(const std::vector<unsigned char>& bytes) const {
        size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = write(m_master, bytes.data() + done, bytes.size() - done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }

    // What the far end receives: up to `count` bytes, waiting at most
    // `timeoutMs` for each arrival.
    std::vector<unsigned char> receive(size_t count, int timeoutMs) const {
        std::vector<unsigned char> bytes;
        while (bytes.size() < count) {
            struct pollfd ready = {m_master, POLLIN, 0};
            if (poll(&ready, 1, timeoutMs) != 1)
                break;
            unsigned char chunk[256];
            const size_t wanted = count - bytes.size() < sizeof chunk ? count - bytes.size() : sizeof chunk;
            const ssize_t n = read(m_master, chunk, wanted);
            if (n <= 0)
                break;
            bytes.insert(bytes.end(), chunk, chunk + n);
        }
        return bytes;
    }

private:
    int m_master = -1;
    std::string m_slavePath;
};

} // namespace iotest

#endif
