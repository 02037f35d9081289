#include "sim/serial/mcu_model.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace vexa::sim {

namespace {

constexpr uint8_t kAck = 0x79;
constexpr uint8_t kNack = 0x1F;
constexpr size_t kMaxFrames = 1000;
constexpr size_t kMaxAppFrame = 4200;
constexpr size_t kVersionScan = 64 * 1024;
constexpr uint64_t kFedWindowNs = 3000000000ull;
constexpr uint64_t kCloseWindowNs = 250000000ull;

uint16_t le16(const uint8_t *p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

void put_le16(uint8_t *p, uint16_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

uint16_t sum16(const uint8_t *p, size_t n)
{
    uint16_t s = 0;
    for (size_t i = 0; i < n; ++i)
        s = static_cast<uint16_t>(s + p[i]);
    return s;
}

uint8_t xor_of(const uint8_t *p, size_t n)
{
    uint8_t x = 0;
    for (size_t i = 0; i < n; ++i)
        x ^= p[i];
    return x;
}

} // namespace

McuModel::McuModel(std::string board_path, Folder folder, std::string flash_file)
    : SerialLine(std::move(board_path)), folder_(std::move(folder)), flash_file_(std::move(flash_file))
{
    load_flash();
    restart();
    if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0)
        wake_[0] = wake_[1] = -1;
    thread_ = std::thread([this] { run(); });
}

McuModel::~McuModel()
{
    stop_ = true;
    if (wake_[1] >= 0) {
        const char c = 0;
        (void)!::write(wake_[1], &c, 1);
    }
    if (thread_.joinable())
        thread_.join();
    for (int fd : wake_)
        if (fd >= 0)
            ::close(fd);
    if (flash_fd_ >= 0)
        ::close(flash_fd_);
}

void McuModel::run()
{
    // Paced bytes keep their wire time to the microsecond, not the default
    // 50 us slack of a sleeping thread.
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
    std::vector<uint8_t> buf(4096);
    while (!stop_) {
        struct pollfd fds[2] = {{master(), POLLIN, 0}, {wake_[0], POLLIN, 0}};
        const int ready = ::poll(fds, wake_[0] >= 0 ? 2 : 1, 200);
        if (stop_)
            break;
        if (ready <= 0 || !(fds[0].revents & POLLIN))
            continue;
        const ssize_t n = ::read(master(), buf.data(), buf.size());
        if (n > 0)
            on_bytes(buf.data(), static_cast<size_t>(n));
    }
}

void McuModel::on_bytes(const uint8_t *data, size_t n)
{
    std::lock_guard<std::mutex> lock(mu_);
    bytes_in_ += n;
    if (pace_baud_) {
        // The bytes take their wire time to arrive. The model works on them
        // at once; a reply they cause leaves only once they are all in
        // (send), so a paced exchange costs one sleep, not two.
        const auto now = std::chrono::steady_clock::now();
        const auto wire = std::chrono::nanoseconds(1000000000ull * pace_bits_ * n / pace_baud_);
        rx_free_ = std::max(now, rx_free_) + wire;
    }
    if (mode_ == Mode::reset || reply_ == Reply::silent)
        return;
    rx_.insert(rx_.end(), data, data + n);
    for (;;) {
        const bool progressed = mode_ == Mode::application ? app_step()
                              : mode_ == Mode::bootloader  ? boot_step()
                                                           : false;
        if (!progressed)
            break;
    }
}

void McuModel::send(const std::vector<uint8_t> &bytes)
{
    if (bytes.empty())
        return;
    bytes_out_ += bytes.size();
    if (pace_baud_) {
        const auto now = std::chrono::steady_clock::now();
        const auto wire =
            std::chrono::nanoseconds(1000000000ull * pace_bits_ * bytes.size() / pace_baud_);
        tx_free_ = std::max({now, tx_free_, rx_free_}) + wire;
        // The bytes leave when their wire time is up, not when a late timer
        // gets round to them.
        pacer_.until(tx_free_);
    }
    size_t done = 0;
    while (done < bytes.size() && !stop_) {
        const ssize_t n = ::write(master(), bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
            return;
        } else {
            struct pollfd pfd = {master(), POLLOUT, 0};
            ::poll(&pfd, 1, 100);
        }
    }
}

// ---- Application mode ----

bool McuModel::app_step()
{
    // Resynchronise on the head bytes 0x55 0xBB.
    size_t skip = 0;
    while (skip < rx_.size() && rx_[skip] != 0x55)
        ++skip;
    if (skip) {
        rx_.erase(rx_.begin(), rx_.begin() + static_cast<long>(skip));
        return true;
    }
    if (rx_.size() < 2)
        return false;
    if (rx_[1] != 0xBB) {
        rx_.erase(rx_.begin());
        return true;
    }
    if (rx_.size() < 10)
        return false;
    const size_t total = 10u + le16(&rx_[8]);
    if (total < 32 || total > kMaxAppFrame) {
        rx_.erase(rx_.begin());
        return true;
    }
    if (rx_.size() < total)
        return false;
    std::vector<uint8_t> frame(rx_.begin(), rx_.begin() + static_cast<long>(total));
    rx_.erase(rx_.begin(), rx_.begin() + static_cast<long>(total));

    const bool link = total == 33 && frame[22] == 0x00 && frame[23] == 0x00 && frame[24] == 0x02 &&
                      frame[25] == 0x01;
    const bool version = total == 35 && frame[22] == 0x01 && frame[28] == 0x03;
    // A reply held back from the request before comes out now.
    if ((link || version) && !held_reply_.empty()) {
        send(held_reply_);
        held_reply_.clear();
    }
    if (link) {
        ++link_requests_;
        reply_link(frame);
    } else if (version) {
        ++version_requests_;
        reply_version(frame);
    } else if (frames_.size() < kMaxFrames) {
        frames_.push_back(std::move(frame));
    }
    return true;
}

void McuModel::reply_version(const std::vector<uint8_t> &request)
{
    std::vector<uint8_t> reply(64, 0);
    reply[0] = 0x55;
    reply[1] = 0xBB;
    reply[5] = 0x01;
    reply[6] = request[6];
    reply[7] = request[7];
    put_le16(&reply[8], static_cast<uint16_t>(reply.size() - 10));
    reply[10] = 0x41;
    reply[11] = 0x01;
    reply[22] = 0x01;
    reply[28] = 0x03;
    std::memcpy(&reply[46], running_version_.data(), std::min<size_t>(running_version_.size(), 15));
    put_le16(&reply[62], sum16(reply.data(), 62));
    emit_app_reply(std::move(reply), false);
}

void McuModel::reply_link(const std::vector<uint8_t> &request)
{
    int port = request[30];
    if (!quirks_.empty() && quirks_.front().quirk == Quirk::other_port)
        port = quirks_.front().port;
    std::vector<uint8_t> reply(37, 0);
    reply[0] = 0xBB;
    reply[1] = 0x55;
    reply[5] = 0x01;
    reply[6] = request[6];
    reply[7] = request[7];
    put_le16(&reply[8], 27);
    reply[10] = 0x41;
    reply[11] = 0x01;
    reply[24] = 0x02;
    reply[25] = 0x01;
    reply[28] = 0x01;
    reply[30] = static_cast<uint8_t>(port);
    reply[31] = request[31];
    reply[32] = port < 64 ? static_cast<uint8_t>((link_mask_ >> port) & 1u) : 0;
    put_le16(&reply[35], sum16(reply.data(), 35));
    emit_app_reply(std::move(reply), true);
}

void McuModel::emit_app_reply(std::vector<uint8_t> reply, bool link)
{
    if (reply_ == Reply::nack) {
        reply[0] ^= 0xFF;
        reply[1] ^= 0xFF;
        send(reply);
        return;
    }
    if (!quirks_.empty()) {
        PendingQuirk &q = quirks_.front();
        switch (q.quirk) {
        case Quirk::silent: reply.clear(); break;
        case Quirk::late: held_reply_ = reply; reply.clear(); break;
        case Quirk::garble: reply[0] ^= 0xFF; reply[1] ^= 0xFF; break;
        case Quirk::short_reply: reply.pop_back(); break;
        case Quirk::other_port: break; // applied when the reply was built
        case Quirk::bad_tag: if (link) reply[25] = 0x07; break;
        case Quirk::bad_status: if (link) reply[32] = 0x02; break;
        }
        if (--q.times <= 0)
            quirks_.pop_front();
    }
    send(reply);
}

// ---- Bootloader ----

uint16_t McuModel::st_pid() const
{
    switch (type_) {
    case 3: return 0x419;
    case 4: return 0x450;
    default: return 0x414;
    }
}

uint32_t McuModel::gd_pid() const
{
    switch (type_) {
    case 1: return 0x46455633u;
    case 2: return 0x45353033u; // a GD32E503 id the flasher does not know
    case 3: return 0x4E455A30u;
    default: return 0;
    }
}

bool McuModel::address_ok(const uint8_t *five, uint32_t *address) const
{
    if (xor_of(five, 4) != five[4])
        return false;
    *address = (static_cast<uint32_t>(five[0]) << 24) | (static_cast<uint32_t>(five[1]) << 16) |
               (static_cast<uint32_t>(five[2]) << 8) | five[3];
    return *address >= kFlashBase && *address < kFlashBase + kFlashSize;
}

void McuModel::erase_page(uint16_t page)
{
    uint32_t offset;
    uint32_t size;
    switch (type_) {
    case 1:
        if (page < 256) {
            offset = page * 2048u;
            size = 2048;
        } else {
            offset = 0x80000u + (page - 256u) * 4096u;
            size = 4096;
        }
        break;
    case 2: offset = page * 8192u; size = 8192; break;
    case 3: offset = page * 4096u; size = 4096; break;
    default: offset = page * 131072u; size = 131072; break;
    }
    if (offset >= kFlashSize)
        return;
    size = std::min(size, kFlashSize - offset);
    std::fill(flash_.begin() + offset, flash_.begin() + offset + size, 0xFF);
    store_flash(offset, size);
}

bool McuModel::boot_step()
{
    auto consume = [this](size_t n) { rx_.erase(rx_.begin(), rx_.begin() + static_cast<long>(n)); };
    if (rx_.empty())
        return false;
    if (boot_silent_) {
        rx_.clear();
        return false;
    }
    if (reply_ == Reply::nack) {
        // Refuses every byte that would start a step: a greeting or a command.
        rx_.clear();
        send_byte(kNack);
        return false;
    }
    switch (boot_state_) {
    case BootState::command: {
        if (!boot_ready_) {
            const uint8_t byte = rx_[0];
            consume(1);
            if (byte == 0x7F) {
                ++start_bytes_;
                if (nack_start_ > 0) {
                    --nack_start_;
                    send_byte(kNack);
                } else {
                    boot_ready_ = true;
                    send_byte(kAck);
                }
            }
            return true;
        }
        if (rx_[0] == 0x7F) {
            // Greeted twice: the bootloader refuses, as the chips do.
            ++start_bytes_;
            consume(1);
            send_byte(kNack);
            return true;
        }
        if (rx_.size() < 2)
            return false;
        const uint8_t code = rx_[0];
        const uint8_t complement = rx_[1];
        consume(2);
        if (static_cast<uint8_t>(code ^ complement) != 0xFF) {
            send_byte(kNack);
            return true;
        }
        if (nack_code_times_ > 0 && nack_code_ == code) {
            --nack_code_times_;
            send_byte(kNack);
            return true;
        }
        switch (code) {
        case 0x00:
            send({kAck, 11, 0x31, 0x00, 0x01, 0x02, 0x11, 0x21, 0x31, 0x44, 0x63, 0x73, 0x82, 0x92,
                  kAck});
            break;
        case 0x01: send({kAck, 0x31, 0x00, 0x00, kAck}); break;
        case 0x02:
            send({kAck, 0x01, static_cast<uint8_t>(st_pid() >> 8), static_cast<uint8_t>(st_pid()),
                  kAck});
            break;
        case 0x06: {
            const uint32_t pid = gd_pid();
            if (!pid) {
                send_byte(kNack);
                break;
            }
            send({kAck, 4, static_cast<uint8_t>(pid), static_cast<uint8_t>(pid >> 8),
                  static_cast<uint8_t>(pid >> 16), static_cast<uint8_t>(pid >> 24), kAck});
            break;
        }
        case 0x11: send_byte(kAck); boot_state_ = BootState::read_addr; break;
        case 0x21: send_byte(kAck); boot_state_ = BootState::go_addr; break;
        case 0x31: send_byte(kAck); boot_state_ = BootState::write_addr; break;
        case 0x44: send_byte(kAck); boot_state_ = BootState::erase_count; break;
        case 0x73:
        case 0x92:
            // Unprotecting resets the chip: greet again afterwards.
            send({kAck, kAck});
            boot_ready_ = false;
            break;
        default: send_byte(kNack); break;
        }
        return true;
    }
    case BootState::read_addr:
    case BootState::go_addr:
    case BootState::write_addr: {
        if (rx_.size() < 5)
            return false;
        uint32_t address;
        const bool ok = address_ok(rx_.data(), &address);
        consume(5);
        const BootState state = boot_state_;
        boot_state_ = BootState::command;
        if (!ok) {
            send_byte(kNack);
            return true;
        }
        send_byte(kAck);
        op_address_ = address;
        if (state == BootState::read_addr) {
            boot_state_ = BootState::read_count;
        } else if (state == BootState::write_addr) {
            boot_state_ = BootState::write_data;
        } else {
            mode_ = Mode::application;
            restart();
        }
        return true;
    }
    case BootState::read_count: {
        if (rx_.size() < 2)
            return false;
        const uint8_t n = rx_[0];
        const bool ok = static_cast<uint8_t>(n ^ rx_[1]) == 0xFF;
        consume(2);
        boot_state_ = BootState::command;
        if (!ok) {
            send_byte(kNack);
            return true;
        }
        const uint32_t offset = op_address_ - kFlashBase;
        const uint32_t len = std::min<uint32_t>(n + 1u, kFlashSize - offset);
        std::vector<uint8_t> out{kAck};
        out.insert(out.end(), flash_.begin() + offset, flash_.begin() + offset + len);
        send(out);
        return true;
    }
    case BootState::write_data: {
        const size_t n = rx_[0] + 1u;
        if (rx_.size() < n + 2)
            return false;
        const bool ok = xor_of(rx_.data(), n + 1) == rx_[n + 1];
        const uint32_t offset = op_address_ - kFlashBase;
        boot_state_ = BootState::command;
        if (ok && offset + n <= kFlashSize) {
            for (size_t i = 0; i < n; ++i)
                flash_[offset + i] &= rx_[1 + i]; // programming only clears bits
            store_flash(offset, static_cast<uint32_t>(n));
            activity_.written += n;
            consume(n + 2);
            send_byte(kAck);
        } else {
            consume(n + 2);
            send_byte(kNack);
        }
        return true;
    }
    case BootState::erase_count: {
        if (rx_.size() < 2)
            return false;
        erase_field_ = static_cast<uint16_t>((rx_[0] << 8) | rx_[1]);
        if (erase_field_ >= 0xFFFD) {
            if (rx_.size() < 3)
                return false;
            const bool ok = (rx_[0] ^ rx_[1]) == rx_[2];
            consume(3);
            boot_state_ = BootState::command;
            if (ok) {
                erases_.push_back(Erase{true, {}});
                activity_.mass_erased = true;
                std::fill(flash_.begin(), flash_.end(), 0xFF);
                store_flash(0, kFlashSize);
            }
            send_byte(ok ? kAck : kNack);
            return true;
        }
        boot_state_ = BootState::erase_pages;
        return true;
    }
    case BootState::erase_pages: {
        const size_t need = 2 + 2 * (erase_field_ + 1u) + 1;
        if (rx_.size() < need)
            return false;
        const bool ok = xor_of(rx_.data(), need - 1) == rx_[need - 1];
        Erase erase;
        for (size_t i = 0; ok && i <= erase_field_; ++i) {
            const uint16_t page = static_cast<uint16_t>((rx_[2 + 2 * i] << 8) | rx_[3 + 2 * i]);
            erase.pages.push_back(page);
            erase_page(page);
        }
        consume(need);
        boot_state_ = BootState::command;
        if (ok) {
            activity_.erased_pages += static_cast<uint32_t>(erase.pages.size());
            erases_.push_back(std::move(erase));
        }
        send_byte(ok ? kAck : kNack);
        return true;
    }
    }
    return false;
}

void McuModel::restart()
{
    rx_.clear();
    held_reply_.clear();
    boot_ready_ = false;
    boot_state_ = BootState::command;
    activity_ = FlashActivity{};
    running_version_ = default_version_;
    const size_t scan = std::min(flash_.size(), kVersionScan);
    static const char kMarker[] = "MCUVER=";
    auto it = std::search(flash_.begin(), flash_.begin() + static_cast<long>(scan), kMarker,
                          kMarker + sizeof(kMarker) - 1);
    if (it != flash_.begin() + static_cast<long>(scan)) {
        std::string text;
        for (auto p = it + sizeof(kMarker) - 1; p != flash_.end() && *p && *p != 0xFF &&
                                                text.size() < 15;
             ++p)
            text.push_back(static_cast<char>(*p));
        running_version_ = text;
    }
}

void McuModel::load_flash()
{
    flash_.assign(kFlashSize, 0xFF);
    const Descriptor in(folder_.open(flash_file_, O_RDONLY));
    if (in && ::pread(in.get(), flash_.data(), kFlashSize, 0) < 0) {
        // an unreadable flash reads erased
    }
}

void McuModel::store_flash(uint32_t offset, uint32_t length)
{
    // The file stays open from the first store on: a block costs one write,
    // and the board's watchers see no file closed after writing on every
    // block.
    if (flash_fd_ < 0) {
        flash_fd_ = folder_.open(flash_file_, O_RDWR | O_CREAT, 0644);
        if (flash_fd_ < 0)
            return;
        struct stat st;
        if (::fstat(flash_fd_, &st) == 0 && st.st_size < static_cast<off_t>(kFlashSize)) {
            // A new flash file holds the whole erased flash.
            offset = 0;
            length = kFlashSize;
        }
    }
    (void)!::pwrite(flash_fd_, flash_.data() + offset, length, offset);
}

// ---- Public state ----

McuModel::Mode McuModel::mode() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return mode_;
}

void McuModel::set_version(const std::string &text)
{
    std::lock_guard<std::mutex> lock(mu_);
    const bool from_default = running_version_ == default_version_;
    default_version_ = text;
    if (from_default)
        running_version_ = text;
}

McuModel::FlashActivity McuModel::flash_activity() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return activity_;
}

std::string McuModel::version() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return running_version_;
}

void McuModel::set_link_mask(uint64_t mask)
{
    std::lock_guard<std::mutex> lock(mu_);
    link_mask_ = mask;
}

uint64_t McuModel::link_mask() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return link_mask_;
}

void McuModel::add_quirk(Quirk quirk, int times, int port)
{
    std::lock_guard<std::mutex> lock(mu_);
    quirks_.push_back({quirk, times, port});
}

void McuModel::clear_quirks()
{
    std::lock_guard<std::mutex> lock(mu_);
    quirks_.clear();
    held_reply_.clear();
}

std::vector<std::vector<uint8_t>> McuModel::frames() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return frames_;
}

int McuModel::version_requests() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return version_requests_;
}

int McuModel::link_requests() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return link_requests_;
}

void McuModel::set_type(int type)
{
    std::lock_guard<std::mutex> lock(mu_);
    type_ = type;
}

int McuModel::type() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return type_;
}

void McuModel::nack_start(int times)
{
    std::lock_guard<std::mutex> lock(mu_);
    nack_start_ = times;
}

void McuModel::nack_command(uint8_t code, int times)
{
    std::lock_guard<std::mutex> lock(mu_);
    nack_code_ = code;
    nack_code_times_ = times;
}

void McuModel::set_reply(Reply reply)
{
    std::lock_guard<std::mutex> lock(mu_);
    reply_ = reply;
    rx_.clear();
}

McuModel::Reply McuModel::reply() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return reply_;
}

void McuModel::set_bootloader_silent(bool silent)
{
    std::lock_guard<std::mutex> lock(mu_);
    boot_silent_ = silent;
}

int McuModel::start_bytes() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return start_bytes_;
}

std::vector<McuModel::Erase> McuModel::erases() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return erases_;
}

std::vector<uint8_t> McuModel::flash(uint32_t length) const
{
    std::lock_guard<std::mutex> lock(mu_);
    length = std::min(length, kFlashSize);
    return std::vector<uint8_t>(flash_.begin(), flash_.begin() + length);
}

void McuModel::fill_flash(uint8_t value)
{
    std::lock_guard<std::mutex> lock(mu_);
    std::fill(flash_.begin(), flash_.end(), value);
    store_flash(0, kFlashSize);
}

void McuModel::set_boot0(int level)
{
    std::lock_guard<std::mutex> lock(mu_);
    boot0_ = level ? 1 : 0;
}

void McuModel::set_nrst(int level)
{
    std::lock_guard<std::mutex> lock(mu_);
    level = level ? 1 : 0;
    if (level == 0) {
        mode_ = Mode::reset;
        rx_.clear();
    } else if (nrst_ == 0) {
        // Leaving reset: BOOT0 picks the ROM bootloader or the application.
        mode_ = boot0_ ? Mode::bootloader : Mode::application;
        restart();
    }
    nrst_ = level;
}

void McuModel::pace(unsigned baud, unsigned bits_per_byte)
{
    std::lock_guard<std::mutex> lock(mu_);
    pace_baud_ = baud;
    pace_bits_ = bits_per_byte ? bits_per_byte : 10;
}

uint64_t McuModel::bytes_in() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return bytes_in_;
}

uint64_t McuModel::bytes_out() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return bytes_out_;
}

// ---- Watchdog ----

void McuModel::set_watchdog_line(int gpio_id)
{
    std::lock_guard<std::mutex> lock(mu_);
    wdt_line_ = gpio_id;
}

int McuModel::watchdog_line() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return wdt_line_;
}

void McuModel::observe_line(int gpio_id, int level, uint64_t now_ns)
{
    std::lock_guard<std::mutex> lock(mu_);
    if (gpio_id != wdt_line_ || gpio_id < 0)
        return;
    level = level ? 1 : 0;
    if (level == wdt_level_)
        return;
    const uint64_t gap = wdt_changes_.empty() ? UINT64_MAX : now_ns - wdt_changes_.back().first;
    wdt_level_ = level;
    ++wdt_.edges;
    wdt_.last_change_ns = now_ns;
    wdt_changes_.emplace_back(now_ns, level);
    if (wdt_changes_.size() > 16)
        wdt_changes_.erase(wdt_changes_.begin());
    // The closing signal: five short pulses (no level held longer than the
    // close window), ending high. Feeding holds each level half a second.
    int rises = 0;
    uint64_t later = now_ns;
    for (auto it = wdt_changes_.rbegin(); it != wdt_changes_.rend(); ++it) {
        if (later - it->first > kCloseWindowNs)
            break;
        rises += it->second;
        later = it->first;
    }
    if (level == 1 && rises >= 5)
        wdt_.closed = true;
    else if (gap > kCloseWindowNs)
        wdt_.closed = false; // slow toggling again: fed, not closed
}

McuModel::Watchdog McuModel::watchdog(uint64_t now_ns) const
{
    std::lock_guard<std::mutex> lock(mu_);
    Watchdog w = wdt_;
    w.fed = !w.closed && w.edges >= 2 && now_ns >= w.last_change_ns &&
            now_ns - w.last_change_ns <= kFedWindowNs;
    return w;
}

} // namespace vexa::sim
