// The display FPGA of the virtual board, one per board.
//
// Registers: one 32-bit address space. "/dev/fpga_spi" and the product's
// spi_fpga device take write packets (02 ADDR DATA 00), read requests (0B
// ADDR 00 DATA, filled in by read()), window writes (45 HI LO DATA 00) and
// full-duplex window reads (43 HI LO 00 ..., data from received byte 4); the
// window lies at 0x2000000. The UDP link reaches the same registers. Some
// registers are alive: the SGMII clock and negotiation state, the SGMII
// resets, the DDR state and reset, the link status record (ready once the
// parameters are complete and a source is present), the source mode, the
// Ethernet outputs, the running program's 7-byte tag at window 0xF0, the
// receiving-card frame buffer, handshake and reply, and the mailbox of the
// qr3plus/qr5plus update. An unconfigured FPGA reads zeros and drops writes.
//
// Program: "/dev/fpga_load" takes an 819200-byte image (open resets the
// FPGA), the HAL's loaders a program file; a program configures the FPGA
// when its header holds (see platform/fpga_wire.h). The done pin
// (fpga_done_gpio) is driven by the FPGA: low while it resets, configures or
// is unconfigured, high once configured; what the SoC writes to it does not
// change it. The board's configuration sequence: the control pin
// (fpga_control_gpio) low keeps the FPGA off its flash (a configured FPGA
// runs on); the config pin (fpga_config_gpio) low holds it in reset, and its
// rising edge starts the configuration from the flash, which takes the
// part's configuration time (a Kintex-7 XC7K325T: a 91,548,896-bit bitstream
// read in master SPI x4 at 50 MHz, 458 ms) before done rises. Releasing the
// control pin alone configures nothing; a configuration started while the
// FPGA is off its flash, or cut off by the control pin, finds no program. A
// pin the SoC never drove counts as high (pulled up).
//
// Flash: "/dev/mtd0", a Winbond W25Q128JV (16 MiB of NOR, 64 KiB erase
// blocks; an erase sets 0xFF, a write can only clear bits), kept in the
// board file of that name, laid out with the default program on first use;
// "/vendor/bin/mtd_debug" info, erase, read and write act on it. An erase
// takes 150 ms a 64 KiB block and a write 0.4 ms a 256-byte page (the
// datasheet's typical figures), so erasing the 13 MiB the update clears
// takes 31.2 s on the board's clock.
//
// SPI: the nodes take transfers up to the driver's buffer (spidev's bufsiz;
// the board's kernel sets 53248 bytes, room for the longest frame the
// library sends, a 51204-byte parameter record), longer ones fail with
// EMSGSIZE as spidev refuses them.
//
// PHY: the RTL8211FS behind the SGMII link (sim/fpga/phy_model.h). Its reset
// line ("/sys/class/vexagpios/RTL8211FS_RSTN/value", every level written,
// in order) resets it; "/sys/class/ethernet/phyreg" takes "w REG VAL" and
// "r REG" (register 0x1f selects the page) and, after a read, shows the
// register's value; insmod loads the MAC driver (listed in "/proc/modules").
// "/sys/class/ethernet/vexaphyreg" reads "0x907" while the link is up: the
// FPGA configured, the PHY out of reset, the driver loaded, SGMII mode (page
// 0xd08, register 0x10 = 0x5e) and auto-negotiation done. Negotiation
// starts when the SGMII transmit and receive resets are released and takes
// two periods of SGMII's 1.6 ms link timer, 3.2 ms.
//
// Receiving cards: ports 0-3 with `cards` cards each (default 2; a port
// with none has its cards absent). A write frame reaches every card of its
// port (the sending card broadcasts); a read is answered by the port's first
// card, unless the port has no card, is silent or does not exist. Its reply
// is ready (status 0x84) 33 ms after the frame was sent with the enable
// handshake: the card answers in the frame after the request, at the 60 Hz
// of the card chain.
//
// Settings and fault knobs: the board's knobs "fpga.KEY" (Board::knob;
// fpga_knobs() lists them), read whenever the model needs them, so any
// process (vexactl board fault, or vexactl fpga knob) can set them. The
// timings are knobs too (config_ms, erase_ms, page_program_ms,
// negotiation_ms, card_reply_ms).
//
// State that other processes see lives in the board folder: the done line,
// the flash, ROOT/.board/fpga/program.bin (the running program),
// ROOT/.board/fpga/state (whether it is configured, the last load, the link
// and output state) and ROOT/.board/fpga/cards (the cards' registers, "PORT
// CARD ADDRESS HEXBYTES" a run); the FPGA's own registers live with the
// model, and the service "fpga.state" tells the rest (state_text()).
//
// Time: the FPGA's own delays (configuration, negotiation, card replies) are
// timers on the board's clock (sim/board_clock.h); a flash erase or write
// takes its time in the thread that carries it out.
//
// Threads: every method may be called from any thread; the UDP link is
// served on the model's own thread.
#ifndef VEXA_SIM_FPGA_MODEL_H
#define VEXA_SIM_FPGA_MODEL_H

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "sim/board.h"
#include "sim/fpga/phy_model.h"

namespace vexa::sim {

struct FpgaKnobs {
    static constexpr int kPorts = 4;
    enum class Done { normal, never, stuck_high } done = Done::normal;
    bool spi_fails = false;
    size_t spi_bufsiz = 53248;
    std::array<int, kPorts> cards{2, 2, 2, 2}; // per port; 0: absent
    std::set<int> silent_ports;
    bool clock_never = false;
    bool negotiation_never = false;
    enum class Link { automatic, up, down } phy_link = Link::automatic;
    bool tag_stuck = false;
    uint8_t source_mode = 0x48;
    enum class Source { hdmi, dvi, none } source = Source::hdmi;
    enum class Ddr { good, bad, recovers } ddr = Ddr::good;
    bool status_never = false;
    bool outputs_stuck = false;
    bool udp_silent = false;
    long long mtd_cut = -1;
    // Timings on the board's clock, in ns.
    uint64_t config_ns = 458000000;     // configuration from the flash
    uint64_t erase_ns = 150000000;      // a 64 KiB block erase
    uint64_t page_program_ns = 400000;  // a 256-byte page program
    uint64_t negotiation_ns = 3200000;  // SGMII auto-negotiation
    uint64_t card_reply_ns = 33000000;  // a receiving card's reply
};
// The knobs of a "KEY=VALUE" a line text; unknown keys and bad values are ignored.
FpgaKnobs parse_fpga_knobs(const std::string &text);
// The FPGA's knobs, "fpga.KEY" on the board (sim/fpga/fpga_knobs.cpp
// registers them): the key, the values it takes, its value while none is
// set, a line of help, and the check of a value that is not one of the
// words of `takes`.
struct FpgaKnob {
    std::string key, takes, initial, help;
    Knob::Check check;
};
const std::vector<FpgaKnob> &fpga_knobs();
// A duration in ms (fractions taken, up to a minute), in ns: false for
// anything else.
bool parse_fpga_ms(const std::string &text, uint64_t *ns);

// Programs of the default board: 1 runs on it and is in its flash and
// program partition, 2 is the newer one in "/vendor/etc/fpga/fpga_fw.bin"
// and "/vendor/etc/fpga.bin".
std::string default_fpga_program(int version);
// The tags text of a default program.
std::string default_fpga_tags(int version);
// A screen parameter block file of the blocks (address, data), in order.
std::string make_fpga_block_file(const std::vector<std::pair<uint32_t, std::string>> &blocks);
// The default board's "/system/etc/led_screen.hex": pz50pro parameters with
// every kind of block (start, topology, gamma, network gap, ...).
std::string default_led_screen_hex();

class FpgaModel : public std::enable_shared_from_this<FpgaModel> {
public:
    static constexpr size_t kFlashSize = 16u << 20;
    static constexpr size_t kEraseSize = 64u << 10;
    static constexpr size_t kPageSize = 256;
    static constexpr int kPorts = FpgaKnobs::kPorts;

    struct Pins {
        int control = -1, config = -1, done = -1;
    };
    // root: the board's root; spi_nodes and load_nodes: the board paths of
    // the SPI devices and of the load node(s).
    FpgaModel(std::weak_ptr<Board::State> state, std::string root, Pins pins,
              std::set<std::string> spi_nodes, std::set<std::string> load_nodes);
    ~FpgaModel();
    FpgaModel(const FpgaModel &) = delete;
    FpgaModel &operator=(const FpgaModel &) = delete;

    // Takes the pins' levels from the board's lines and drives the done line
    // as the persisted state says (after attaching).
    void power_on(const Board &board);

    // ---- SPI: 0, or -errno ----
    // kind: 'w' a write, 'r' a read() of a read request, 'x' full duplex.
    // -EMSGSIZE above the driver's buffer, -EIO with the spi=fail knob.
    int spi(const std::string &node, char kind, uint8_t *buf, size_t n);
    bool spi_node(const std::string &node) const { return spi_nodes_.count(node) != 0; }

    // ---- Loading ----
    // A program file through the HAL: 0, or -errno (-ENODEV: drv is not a
    // load node; -EINVAL: not a program; -ETIMEDOUT: done never rose).
    int hal_load(const std::string &drv, const std::vector<uint8_t> &file);
    bool load_node(const std::string &node) const { return load_nodes_.count(node) != 0; }
    void load_node_open();
    // Bytes taken, or -errno (-ENOSPC past 819200 bytes, -ETIMEDOUT / -EINVAL
    // when the image does not configure the FPGA).
    long load_node_write(const uint8_t *data, size_t n);

    // ---- Lines, files and commands ----
    void observe_line(int id, int level);
    void phy_reset_written(const std::string &contents);
    void phyreg_written(const std::string &contents);
    CommandResult insmod(const std::vector<std::string> &argv);
    CommandResult mtd_debug(const std::vector<std::string> &argv);
    // The flash file (its board path), laid out on first use.
    std::string flash_file();
    // The flash's own operations, taking the datasheet's time: an erase of
    // whole blocks, a write that can only clear bits (cut: the bytes that
    // get through before the write fails, -1 for all). False when the range
    // is not the flash's (an erase: not whole blocks) or the file fails.
    bool nor_erase(size_t offset, size_t n);
    bool nor_program(size_t offset, const uint8_t *data, size_t n, long long cut = -1);

    // ---- The UDP link ----
    uint16_t udp_port() const { return udp_port_; }
    void switch_gmac();

    // ---- What tests and vexactl look at ----
    bool configured() const;
    std::vector<uint8_t> program() const;
    std::array<uint8_t, 7> tag() const;
    uint8_t reg(uint32_t address) const;
    std::vector<uint8_t> regs(uint32_t address, size_t n) const;
    // The bytes the last "/dev/fpga_load" session received.
    std::vector<uint8_t> load_image() const;
    int hal_loads() const;
    std::vector<uint8_t> card_registers(int port, int card, uint32_t address, size_t n) const;
    bool gmac_udp() const;
    bool phy_link() const;
    // A register of the PHY's current page, as "r REG" reads it.
    std::optional<uint16_t> phy_register(uint16_t reg) const;

    struct Transfer {
        std::string node;
        char kind;
        std::vector<uint8_t> bytes; // as sent
        uint64_t at_ns;             // board clock
    };
    std::vector<Transfer> transfers() const;
    size_t transfer_count() const;
    struct UdpWrite {
        uint32_t address;
        std::vector<uint8_t> data;
    };
    std::vector<UdpWrite> udp_writes() const;
    void clear_record();
    // "key=value" lines: configured, configuring, program_bytes, tag, done,
    // last_load, last_load_result, ports, cards, flash_op, flash_done,
    // flash_total, update_pieces, update_total, ...
    std::string state_text() const;

private:
    FpgaKnobs knobs() const;
    uint64_t now() const;
    // Calls fn under the model's lock once the board's clock has moved on by
    // ns, unless *generation has changed by then.
    void after(uint64_t ns, const uint64_t *generation, void (FpgaModel::*fn)());
    void advance_bus(size_t bytes);
    // Register file.
    uint8_t read_byte(uint32_t address) const;
    void read_regs(uint32_t address, uint8_t *out, size_t n) const;
    void write_regs(uint32_t address, const uint8_t *data, size_t n);
    void window_frame(const uint8_t *buf, size_t n);
    void send_card_frame();
    void card_answers();
    void update_mailbox(uint16_t offset, const uint8_t *buf, size_t n);
    void update_written();
    // Configuration.
    bool configure(const std::vector<uint8_t> &image, const char *from);
    void reset_fpga();
    void start_configuration(const char *from);
    void configuration_ends();
    void configure_from_flash();
    void clear_fpga_state();
    void sync_done();
    void sync_phy();
    void negotiation_ends();
    bool driver_loaded() const;
    void persist();
    void persist_cards() const;
    void restore();
    // Flash.
    void ensure_flash_locked();
    void udp_serve();

    std::weak_ptr<Board::State> state_;
    mutable std::mutex knobs_mu_;
    mutable FpgaKnobs knobs_;
    mutable std::string knobs_stamp_;
    std::string persisted_;
    bool program_changed_ = false;
    const std::string root_;
    const Pins pins_;
    const std::set<std::string> spi_nodes_, load_nodes_;

    mutable std::recursive_mutex mu_;
    std::map<uint32_t, std::array<uint8_t, 4096>> pages_;
    bool configured_ = false;
    std::vector<uint8_t> program_;
    std::array<uint8_t, 7> tag_{};
    int done_level_ = -1;
    int control_level_ = 1, config_level_ = 1;
    // A configuration under way; a reset or a new one changes the generation.
    bool configuring_ = false;
    uint64_t config_generation_ = 0;
    std::string configuring_from_;
    std::string last_load_ = "power-on";
    int last_load_result_ = 0;
    bool negotiated_ = false;
    uint64_t negotiation_generation_ = 0;
    bool tx_asserted_ = false, rx_asserted_ = false;
    uint8_t tx_level_ = 1, rx_level_ = 1;
    bool ddr_ok_ = false;
    bool status_ready_ = false;
    bool outputs_on_ = false;
    bool gmac_udp_ = false;
    // Receiving cards: the frame, its reply once the card has answered.
    std::vector<uint8_t> card_frame_, card_sent_;
    std::vector<uint8_t> card_reply_;
    uint8_t card_status_ = 0;
    uint64_t card_generation_ = 0;
    std::map<std::pair<int, int>, std::map<uint32_t, uint8_t>> cards_;
    // The qr3plus/qr5plus update mailbox.
    bool update_open_ = false;
    uint32_t update_size_ = 0;
    uint16_t update_sum_ = 0;
    std::array<uint8_t, 7> update_tag_{};
    std::map<uint16_t, std::vector<uint8_t>> update_pieces_;
    std::string update_image_; // being written to the flash
    // "/dev/fpga_load".
    std::vector<uint8_t> load_image_;
    int hal_loads_ = 0;
    // PHY.
    bool phy_in_reset_ = false;
    Rtl8211fs phy_;
    std::string phy_text_;
    std::string phyreg_text_;
    // Record.
    std::vector<Transfer> transfers_;
    std::vector<UdpWrite> udp_writes_;
    // The flash: one operation at a time, outside the model's lock (an
    // erase takes seconds, the FPGA meanwhile answers); its progress.
    std::mutex flash_mu_;
    std::atomic<char> flash_op_{0};
    std::atomic<uint64_t> flash_done_{0}, flash_total_{0};

    int udp_fd_ = -1;
    int wake_fd_ = -1;
    uint16_t udp_port_ = 0;
    std::atomic<bool> stop_{false};
    std::thread udp_thread_;
};

// The FPGA model of an attached board (tests and vexactl), or null.
std::shared_ptr<FpgaModel> fpga_model(const Board &board);

} // namespace vexa::sim

#endif
