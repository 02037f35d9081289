// Serial lines of the virtual board. Each configured port ([serial] paths and
// the MCU's [mcu] mcu_uart_path of the product INI) is a pseudo-terminal: its
// board path leads to the pty's slave, so termios runs for real, and the far
// end stays with the board. Plain lines keep what the library writes until a
// test takes it; the MCU line has the MCU model behind it (mcu_model.h).
//
// Lines and models live while a process holds the board.
#ifndef VEXA_SIM_SERIAL_SERIAL_LINE_H
#define VEXA_SIM_SERIAL_SERIAL_LINE_H

#include <memory>
#include <string>
#include <vector>

#include "sim/board.h"
#include "sim/serial/pty.h"

namespace vexa::sim {

class McuModel;

class SerialLine : public DeviceModel {
public:
    explicit SerialLine(std::string board_path);
    ~SerialLine() override;

    const std::string &board_path() const { return board_path_; }
    // The pty slave that the board path leads to (for outside programs).
    const std::string &pty_path() const { return pty_.slave_path(); }

    // Bytes the board side wrote, waiting up to wait_ms real milliseconds for
    // at least `want` of them (0: take what is there).
    std::string take_output(size_t want = 0, int wait_ms = 0);
    // Bytes for the board side to read.
    void inject(const std::string &bytes);
    // Raw 8N1 again (see Pty::reset_line); each open through the board does it.
    void reset_line();

    int open(const std::string &host_path, int flags, mode_t mode) override;
    int ioctl(int fd, unsigned long request, void *arg) override;

protected:
    int master() const { return pty_.master(); }

private:
    std::string board_path_;
    Pty pty_;
};

// The lines of the board attached in this process, by board path; null when
// the path is not a configured line.
std::shared_ptr<SerialLine> serial_line(const Board &board, const std::string &board_path);
std::vector<std::shared_ptr<SerialLine>> serial_lines(const Board &board);
// The MCU model of the board attached in this process (null when the INI
// names no mcu_uart_path).
std::shared_ptr<McuModel> mcu_model(const Board &board);

} // namespace vexa::sim

#endif
