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
#include <vector>

namespace iotest {

class PseudoTerminal {
public:
    PseudoTerminal() : m_master(posix_openpt(O_RDWR | O_NOCTTY)) {
        char name[128];
        if (m_master < 0 || grantpt(m_master) != 0 || unlockpt(m_master) != 0 || ptsname_r(m_master, name, sizeof name))
            throw std::runtime_error("no pseudo-terminal");
        m_slavePath = name;
    }
    ~PseudoTerminal() { hangUp(); }
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;
    const char* slavePath() const { return m_slavePath.c_str(); }
    int master() const { return m_master; }

    // Sends bytes from the far end; the master takes a small write whole.
    bool send(const std::vector<unsigned char>& bytes) const {
        return write(m_master, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    }
    // Everything the far end receives until the line stays quiet for `quietMs`.
    std::vector<unsigned char> receive(int quietMs) const {
        std::vector<unsigned char> bytes;
        unsigned char chunk[256];
        struct pollfd ready = {m_master, POLLIN, 0};
        for (ssize_t n; poll(&ready, 1, quietMs) == 1 && (n = read(m_master, chunk, sizeof chunk)) > 0;)
            bytes.insert(bytes.end(), chunk, chunk + n);
        return bytes;
    }

    // Closes the far end: the line hangs up.
    void hangUp() {
        if (m_master >= 0)
            close(m_master);
        m_master = -1;
    }

private:
    int m_master;
    std::string m_slavePath;
};

} // namespace iotest

#endif
