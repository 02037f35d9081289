// Serial lines of the virtual board. Each configured port ([serial] paths and
// the MCU's [mcu] mcu_uart_path of the product INI) is a pseudo-terminal pair
// held by the board's host: the board path is a symbolic link to the pty's
// slave (the board's side), so every process opens it directly and termios
// runs for real. A plain line has a second pair for its far end, bridged to
// the first by the host: what the board side writes comes out at the far
// end's slave, where an outside program (or a test, through take_output and
// inject) sits in the peer device's seat. The MCU line has the MCU model
// (mcu_model.h) behind its board side; an outside tool in the SoC's seat
// (stm32flash) opens the board side.
//
// A board path that is a symbolic link the host did not make (to a
// USB-serial adapter, another program's pty) is a host node: used as it is,
// with no line and no model behind it. The host records the links it made in
// ROOT/.board/lines ("BOARD_PATH BOARD_SIDE_PTY OUTSIDE_PTY FAR_END", a line
// each) and removes them when it leaves.
#ifndef VEXA_SIM_SERIAL_SERIAL_LINE_H
#define VEXA_SIM_SERIAL_SERIAL_LINE_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/board.h"
#include "sim/serial/pty.h"

namespace vexa::sim {

class McuModel;

class SerialLine : public DeviceModel {
public:
    // far_end: a plain line, with a far-end pty bridged to the board side.
    explicit SerialLine(std::string board_path, bool far_end = false);
    ~SerialLine() override;

    const std::string &board_path() const { return board_path_; }
    // The pty slave that the board path leads to (the board's side).
    const std::string &pty_path() const { return pty_.slave_path(); }
    // The pty an outside program opens: the far end of a plain line, the
    // board side of the MCU line.
    const std::string &outside_path() const { return far_ ? far_->slave_path() : pty_.slave_path(); }

    // Bytes the board side wrote, as they come out at the far end, waiting up
    // to wait_ms real milliseconds for at least `want` of them (0: take what
    // is there).
    std::string take_output(size_t want = 0, int wait_ms = 0);
    // Bytes sent from the far end, for the board side to read.
    void inject(const std::string &bytes);
    // Bytes written on the board side, as a process on the board writes
    // them: they come out at the far end.
    void emit(const std::string &bytes);
    // Raw 8N1 again (see Pty::reset_line).
    void reset_line();

    int open(const Folder &folder, const std::string &board_path, int flags, mode_t mode) override;
    int ioctl(int fd, unsigned long request, void *arg) override;

    // The pty masters the host's bridge joins (-1 for a line without far end).
    int board_master() const { return pty_.master(); }
    int far_master() const { return far_ ? far_->master() : -1; }

protected:
    int master() const { return pty_.master(); }

private:
    static void write_all(int fd, const std::string &bytes);

    std::string board_path_;
    Pty pty_;
    std::unique_ptr<Pty> far_;
};

// The lines of the board attached in this process, by board path; null when
// the path is not a configured line.
std::shared_ptr<SerialLine> serial_line(const Board &board, const std::string &board_path);
std::vector<std::shared_ptr<SerialLine>> serial_lines(const Board &board);
// The MCU model of the board attached in this process (null when the INI
// names no mcu_uart_path, or in a process that does not host the board).
std::shared_ptr<McuModel> mcu_model(const Board &board);

// What the MCU model saw of its watchdog line at board time now_ns, from any
// process (the host's "mcu.watchdog" service); nothing when the board has no
// MCU model.
struct McuWatchdogView {
    uint64_t edges = 0;
    bool fed = false;
    bool closed = false;
};
std::optional<McuWatchdogView> mcu_watchdog(const Board &board, uint64_t now_ns);

// The lines the board's host holds, from any process (its "serial.lines"
// service), in the order of ROOT/.board/lines.
struct SerialLineInfo {
    std::string board_path;  // "/dev/ttyS7"
    std::string board_pty;   // the board side, which the board path leads to
    std::string outside_pty; // where an outside program sits
    bool mcu = false;        // the MCU model is behind the board side
};
std::vector<SerialLineInfo> serial_line_list(const Board &board);
// The board file that keeps what the board side of a plain line wrote
// lately (the newest 32 to 64 KiB, written anew when it passes 64 KiB):
// "/.board/serial/dev_ttyS7" for "/dev/ttyS7". Starts empty with the host.
std::string serial_output_path(const std::string &board_path);
// Bytes for the board side of a plain line to read, sent from its far end
// as the peer device would; or (from_board) written on its board side, as a
// process on the board would, to come out at the far end. At most 4096 at
// once; false when the host has no such plain line.
bool serial_send(const Board &board, const std::string &board_path, const std::string &bytes,
                 bool from_board = false);

// The MCU model's state, from any process (the host's "mcu.state" service);
// nothing when the board has no MCU model.
struct McuStateView {
    std::string mode;    // "application", "bootloader" or "reset"
    std::string version; // what the application reports
    uint64_t written = 0;     // bytes the bootloader wrote since the MCU started
    uint32_t erased_pages = 0;
    bool mass_erased = false;
};
std::optional<McuStateView> mcu_state(const Board &board);

} // namespace vexa::sim

#endif
