// A pseudo-terminal pair: the far end (master) stays with the board, the
// near end (slave) is what the board path of a serial line leads to.
#ifndef VEXA_SIM_SERIAL_PTY_H
#define VEXA_SIM_SERIAL_PTY_H

#include <string>

namespace vexa::sim {

class Pty {
public:
    // Opens a pair in raw mode; throws std::system_error on failure.
    Pty();
    ~Pty();
    Pty(const Pty &) = delete;
    Pty &operator=(const Pty &) = delete;

    int master() const { return master_; }
    // The board's own descriptor of the slave, held open for the pair's life.
    int keeper() const { return keeper_; }
    // The slave's path, "/dev/pts/N".
    const std::string &slave_path() const { return slave_path_; }
    // Puts the line back to raw 8N1. A pty cannot keep parity, and the kernel
    // refuses (EINVAL) a parity setting that changes nothing else, so each
    // user of the line starts from this state.
    void reset_line();

private:
    int master_ = -1;
    // Held open so the master never sees a hang-up between the library's
    // opens of the line.
    int keeper_ = -1;
    std::string slave_path_;
};

} // namespace vexa::sim

#endif
