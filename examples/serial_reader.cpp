// Reads framed telegrams from a serial line. The line is a pseudo-terminal:
// this program plays the device on the master side, writing each frame (a
// 0xAA 0x55 header, a sequence number, five data bytes) after a little line
// noise, and reads the frames back through the slave as a serial port.
//
// Each transfer gets a 5 ms slice, which a busy machine can overrun: the read
// then reports an error, and like a real device that repeats an unanswered
// telegram this one sends it again on a purged line.
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <korvane/korvane.hpp>

#include <cstdio>
#include <cstdlib>
#include <string>

int main() {
    const int device = posix_openpt(O_RDWR | O_NOCTTY);
    if (device < 0 || grantpt(device) != 0 || unlockpt(device) != 0)
        return 1;
    korvane::SerialPort port(ptsname(device), B115200);
    if (!port.is_open())
        return 1;

    const std::string header = "\xAA\x55";
    for (char sequence = 0; sequence < 5; ++sequence) {
        const std::string sent = "~~" + header + static_cast<char>(sequence) + "HELLO";
        std::optional<std::string> frame;
        for (int attempt = 0; attempt < 8 && !frame; ++attempt) {
            os_serial_purge(port.native_handle(), 3);
            if (write(device, sent.data(), sent.size()) != static_cast<ssize_t>(sent.size()))
                return 1;
            frame = port.read_frame(8, header, 1000);
        }
        if (!frame || *frame != sent.substr(2))
            return 1;
        std::printf("frame %d: %s\n", (*frame)[2], frame->substr(3).c_str());
    }
    close(device);
    return 0;
}
