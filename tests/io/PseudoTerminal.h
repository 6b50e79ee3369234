// A pseudo-terminal pair for serial-port tests and benchmarks: the code under
// test opens the slave's path as its device, the master is the far end.
#ifndef KORVANE_TESTS_PSEUDO_TERMINAL_H
#define KORVANE_TESTS_PSEUDO_TERMINAL_H

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace iotest {

class PseudoTerminal {
public:
    PseudoTerminal() : m_master(posix_openpt(O_RDWR | O_NOCTTY)) {
        if (m_master < 0 || grantpt(m_master) != 0 || unlockpt(m_master) != 0 ||
            ptsname_r(m_master, m_slave, sizeof m_slave) != 0)
            throw std::runtime_error("no pseudo-terminal");
    }
    ~PseudoTerminal() { close(m_master); }
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;
    const char* slavePath() const { return m_slave; }
    int master() const { return m_master; }

    // Sends bytes from the far end; the master takes a small write whole.
    bool send(std::string_view bytes) const {
        return write(m_master, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    }
    // Everything the far end receives until the line stays quiet for `quietMs`.
    std::string receive(int quietMs) const {
        std::string bytes;
        char chunk[256];
        struct pollfd ready = {m_master, POLLIN, 0};
        for (ssize_t n; poll(&ready, 1, quietMs) == 1 && (n = read(m_master, chunk, sizeof chunk)) > 0;)
            bytes.append(chunk, static_cast<size_t>(n));
        return bytes;
    }
    // Closes the far end: the line hangs up.
    void hangUp() { close(std::exchange(m_master, -1)); }

private:
    int m_master;
    char m_slave[128] = {};
};

} // namespace iotest

#endif
