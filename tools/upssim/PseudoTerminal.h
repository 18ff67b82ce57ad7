// PseudoTerminal: the simulated UPS's end of the serial line. Holds the
// master side of a pseudo-terminal plus one open descriptor of the slave
// side, so the line stays usable however often the daemon opens and
// closes the slave, and so the line speed the daemon sets can be read
// back (a terminal's settings are shared by all its open descriptors).
#ifndef KESTRAVA_TOOLS_UPSSIM_PSEUDOTERMINAL_H
#define KESTRAVA_TOOLS_UPSSIM_PSEUDOTERMINAL_H

#include <termios.h>

#include <string>

namespace upssim {

class PseudoTerminal {
public:
    PseudoTerminal() = default;
    ~PseudoTerminal();
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    // Creates the pair; the master is non-blocking, the slave raw.
    bool open(std::string* error);
    void close();

    int masterFd() const { return master_; }
    const std::string& slavePath() const { return slavePath_; }

    // Line speed currently set on the slave in baud; 0 for the hang-up
    // speed or when the settings cannot be read.
    int lineSpeed() const;

    // Writes all bytes to the master, waiting up to timeoutMs for room.
    bool writeAll(const unsigned char* bytes, size_t count, int timeoutMs);

    static int speedToBaud(speed_t speed);
    static speed_t baudToSpeed(int baud);  // B0 for unknown rates

private:
    int master_ = -1;
    int slave_ = -1;
    std::string slavePath_;
};

}  // namespace upssim

#endif
