// The board MCU behind the MCU serial line.
//
// Application mode: answers the firmware version request (its version text at
// offsets 46..60 of a 64-byte frame) and the netlink link requests (a 40-port
// link mask), records every other frame, and can be told to misbehave for the
// next replies.
//
// ROM bootloader: the reset lines ("/sys/class/vexagpios/MCU_BOOT0/value" and
// "/sys/class/vexagpios/MCU_NRST/value", driven by shell echo) take it into
// the bootloader when NRST rises with BOOT0 high, and back into the
// application when NRST rises with BOOT0 low (or on GO). The bootloader
// speaks the ST USART protocol (start byte, command and complement,
// acknowledges) with GET, GET_VERSION, GET_ID, READ, GO, WRITE, EXTENDED
// ERASE, the unprotect commands and the GD32 product-id command 0x06. The
// flash starts at 0x08000000, holds 1 MiB, programs like flash (a write can
// only clear bits) and persists in the board root. A version text in the
// flash ("MCUVER=" then up to 15 characters, in the first 64 KiB) becomes the
// application's version after the next start.
//
// Watchdog: the model watches the MCU watchdog line and tells whether it is
// being fed and whether the closing signal (five short pulses ending high,
// no level held longer than 250 ms) came.
//
// Settings kept with the board ("/.board/mcu-model": lines "version=TEXT",
// "links=MASK", "type=N") apply to the model of every process that attaches
// the board.
//
// Threads: the model answers on its own thread; every method may be called
// from any thread.
#ifndef VEXA_SIM_SERIAL_MCU_MODEL_H
#define VEXA_SIM_SERIAL_MCU_MODEL_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim/precise_wait.h"
#include "sim/serial/serial_line.h"

namespace vexa::sim {

class McuModel : public SerialLine {
public:
    static constexpr uint32_t kFlashBase = 0x08000000u;
    static constexpr uint32_t kFlashSize = 1u << 20;

    // flash_file: board path of the persisted flash, in folder.
    McuModel(std::string board_path, Folder folder, std::string flash_file);
    ~McuModel() override;

    enum class Mode { application, reset, bootloader };
    Mode mode() const;

    // ---- Application mode ----
    // The version text when the flash holds none (default "V1.0.2.0").
    void set_version(const std::string &text);
    // The version the application reports now.
    std::string version() const;
    // Bit n: port n has a link (default 0xF: ports 0 to 3).
    void set_link_mask(uint64_t mask);
    uint64_t link_mask() const;

    enum class Quirk {
        silent,      // no reply
        late,        // the reply comes after the next request
        garble,      // the reply's head bytes are damaged
        short_reply, // one byte short (36 for a link reply)
        other_port,  // the link reply names `port` (with that port's status)
        bad_tag,     // link reply bytes 22-25 wrong
        bad_status,  // link status byte 2
    };
    // Applies the quirk to the next `times` replies of the application.
    void add_quirk(Quirk quirk, int times = 1, int port = 0);
    void clear_quirks();
    // Frames of the application mode that asked for no answer, oldest first.
    std::vector<std::vector<uint8_t>> frames() const;
    // Requests of each kind answered or swallowed so far.
    int version_requests() const;
    int link_requests() const;

    // How the MCU answers, whatever the mode (the board's knob "mcu.reply"):
    // ok; silent: nothing at all, as an MCU that hangs or has no power;
    // nack: the bootloader refuses every greeting and command (NACK) and the
    // application's replies come with their head bytes damaged.
    enum class Reply { ok, silent, nack };
    void set_reply(Reply reply);
    Reply reply() const;

    // ---- Bootloader ----
    // The MCU type by the flasher's numbering: 1 GD32F303, 2 GD32E503, 3
    // GD32F470, 4 STM32H750 (default 1).
    void set_type(int type);
    int type() const;
    // NACK the next `times` start bytes.
    void nack_start(int times);
    // NACK command `code` the next `times` times.
    void nack_command(uint8_t code, int times);
    // The bootloader answers nothing at all.
    void set_bootloader_silent(bool silent);
    int start_bytes() const; // greetings seen since the model started

    struct Erase {
        bool mass = false;
        std::vector<uint16_t> pages;
    };
    std::vector<Erase> erases() const;
    // What the bootloader has done to the flash since the MCU last started:
    // bytes written, pages erased, whether it was mass-erased.
    struct FlashActivity {
        uint64_t written = 0;
        uint32_t erased_pages = 0;
        bool mass_erased = false;
    };
    FlashActivity flash_activity() const;
    // Flash contents (length from the base).
    std::vector<uint8_t> flash(uint32_t length = kFlashSize) const;
    void fill_flash(uint8_t value = 0xFF);

    // Reset lines.
    void set_boot0(int level);
    void set_nrst(int level);

    // Wire pacing: each byte takes bits_per_byte / baud seconds in each
    // direction (0: no pacing).
    void pace(unsigned baud, unsigned bits_per_byte);
    // Bytes the model has received and sent.
    uint64_t bytes_in() const;
    uint64_t bytes_out() const;

    // ---- Watchdog ----
    void set_watchdog_line(int gpio_id);
    int watchdog_line() const;
    // A level driven on a GPIO line at board time now_ns.
    void observe_line(int gpio_id, int level, uint64_t now_ns);
    struct Watchdog {
        uint64_t edges = 0;        // level changes seen
        bool fed = false;          // a change within the last 3 s of board time
        bool closed = false;       // the closing signal came (and no feeding since)
        uint64_t last_change_ns = 0;
    };
    Watchdog watchdog(uint64_t now_ns) const;

private:
    void run();
    void on_bytes(const uint8_t *data, size_t n);
    bool app_step();
    bool boot_step();
    void send(const std::vector<uint8_t> &bytes);
    void send_byte(uint8_t byte) { send(std::vector<uint8_t>{byte}); }
    void reply_version(const std::vector<uint8_t> &request);
    void reply_link(const std::vector<uint8_t> &request);
    void emit_app_reply(std::vector<uint8_t> reply, bool allow_port_quirk);
    void restart();
    void load_flash();
    void store_flash(uint32_t offset, uint32_t length);
    bool address_ok(const uint8_t *five, uint32_t *address) const;
    uint16_t st_pid() const;
    uint32_t gd_pid() const;
    void erase_page(uint16_t page);

    mutable std::mutex mu_;
    Folder folder_;
    std::string flash_file_;
    std::vector<uint8_t> flash_;
    int flash_fd_ = -1; // the flash file, open from the first store on
    Mode mode_ = Mode::application;
    int boot0_ = 0;
    int nrst_ = 1;
    std::string default_version_ = "V1.0.2.0";
    std::string running_version_;
    uint64_t link_mask_ = 0xF; // ports 0-3 linked
    struct PendingQuirk {
        Quirk quirk;
        int times;
        int port;
    };
    std::deque<PendingQuirk> quirks_;
    std::vector<uint8_t> held_reply_;
    std::vector<std::vector<uint8_t>> frames_;
    int version_requests_ = 0;
    int link_requests_ = 0;

    int type_ = 1;
    int nack_start_ = 0;
    uint8_t nack_code_ = 0;
    int nack_code_times_ = 0;
    bool boot_silent_ = false;
    Reply reply_ = Reply::ok;
    bool boot_ready_ = false;
    int start_bytes_ = 0;
    enum class BootState { command, read_addr, read_count, go_addr, write_addr, write_data,
                           erase_count, erase_pages };
    BootState boot_state_ = BootState::command;
    uint32_t op_address_ = 0;
    uint16_t erase_field_ = 0;
    std::vector<Erase> erases_;
    FlashActivity activity_;
    std::vector<uint8_t> rx_;

    unsigned pace_baud_ = 0;
    unsigned pace_bits_ = 10;
    std::chrono::steady_clock::time_point rx_free_{};
    std::chrono::steady_clock::time_point tx_free_{};
    PreciseWait pacer_;
    uint64_t bytes_in_ = 0;
    uint64_t bytes_out_ = 0;

    int wdt_line_ = -1;
    std::vector<std::pair<uint64_t, int>> wdt_changes_; // recent (time, level)
    Watchdog wdt_;
    int wdt_level_ = -1;

    int wake_[2] = {-1, -1};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace vexa::sim

#endif
