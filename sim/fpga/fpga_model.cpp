// The virtual board's FPGA: registers, program and done pin, flash, PHY,
// receiving cards and the UDP link.
#include "sim/fpga/fpga_model.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/fpga_wire.h"
#include "sim/fpga/udp_wire.h"
#include "sim/state.h"

namespace fs = std::filesystem;
namespace wire = vexa::fpga_wire;

namespace vexa::sim {

namespace {

constexpr const char *kStateFile = "/.board/fpga/state";
constexpr const char *kProgramFile = "/.board/fpga/program.bin";
constexpr const char *kCardsFile = "/.board/fpga/cards";
constexpr const char *kPhyLinkFile = "/sys/class/ethernet/vexaphyreg";
constexpr const char *kPhyRegFile = "/sys/class/ethernet/phyreg";
constexpr const char *kModules = "/proc/modules";
constexpr const char *kMacDriver = "dwmac_meson8b";
constexpr size_t kLoadImageSize = 819200;
// A transfer costs the driver's turn-around (100 us) and 800 ns a byte on
// the 10 MHz bus.
constexpr uint64_t kTransferNs = 100000;
constexpr uint64_t kBusNsPerByte = 800;
// The record of transfers keeps the latest ones.
constexpr size_t kRecordMax = 1u << 16;

std::string read_host(const Folder &folder, const std::string &path)
{
    return folder.read(path).value_or("");
}

// Writes a file of the board; its folder must exist (a board being taken
// down gets no new folders).
int write_host(const Folder &folder, const std::string &path, const std::string &contents)
{
    return folder.write(path, contents, false, false);
}

std::string trim(const std::string &s)
{
    const auto first = s.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return "";
    return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

bool parse_number(const std::string &text, long long *value)
{
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    const long long v = std::strtoll(text.c_str(), &end, 0);
    if (*end != '\0' || errno != 0)
        return false;
    *value = v;
    return true;
}

std::string default_payload(int version)
{
    std::string payload(48 * 1024, '\0');
    uint32_t x = 0x9E3779B9u * uint32_t(version);
    for (char &c : payload) {
        x = x * 1103515245u + 12345u;
        c = char(x >> 16);
    }
    return payload;
}

// The tags text of a 7-byte BCD tag.
std::string tags_of(const std::array<uint8_t, 7> &tag)
{
    static const char hex[] = "0123456789abcdef";
    std::string digits;
    for (uint8_t b : tag) {
        digits += hex[b >> 4];
        digits += hex[b & 0xF];
    }
    return digits.substr(0, 8) + "-" + digits.substr(8);
}

std::string hex_bytes(const uint8_t *p, size_t n)
{
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < n; ++i) {
        if (i)
            out += ' ';
        out += hex[p[i] >> 4];
        out += hex[p[i] & 0xF];
    }
    return out;
}

const uint8_t kStatusInForce[] = {0, 3, 0, 1}; // bytes 22-25

} // namespace

// ---- knobs ----

bool parse_fpga_ms(const std::string &text, uint64_t *ns)
{
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    const double ms = std::strtod(text.c_str(), &end);
    if (*end != '\0' || errno != 0 || !(ms >= 0) || ms > 60000)
        return false;
    *ns = uint64_t(ms * 1e6 + 0.5);
    return true;
}

FpgaKnobs parse_fpga_knobs(const std::string &text)
{
    FpgaKnobs k;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        line = trim(line.substr(0, line.find('#')));
        const auto eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        const std::string key = trim(line.substr(0, eq));
        const std::string value = trim(line.substr(eq + 1));
        long long n = 0;
        if (key == "done") {
            if (value == "normal")
                k.done = FpgaKnobs::Done::normal;
            else if (value == "never")
                k.done = FpgaKnobs::Done::never;
            else if (value == "stuck_high")
                k.done = FpgaKnobs::Done::stuck_high;
        } else if (key == "spi") {
            k.spi_fails = value == "fail";
        } else if (key == "spi_bufsiz" && parse_number(value, &n) && n > 0 && n <= (1 << 24)) {
            k.spi_bufsiz = size_t(n);
        } else if (key == "cards") {
            std::vector<int> counts;
            std::istringstream ports(value);
            std::string count;
            while (std::getline(ports, count, ','))
                if (parse_number(trim(count), &n) && n >= 0 && n <= 64)
                    counts.push_back(int(n));
                else
                    counts.push_back(-1);
            if (counts.size() == 1 && counts[0] >= 0)
                k.cards.fill(counts[0]);
            else if (counts.size() == k.cards.size() &&
                     std::none_of(counts.begin(), counts.end(), [](int c) { return c < 0; }))
                std::copy(counts.begin(), counts.end(), k.cards.begin());
        } else if (key == "silent_ports") {
            std::istringstream ports(value);
            std::string port;
            while (std::getline(ports, port, ','))
                if (parse_number(trim(port), &n))
                    k.silent_ports.insert(int(n));
        } else if (key == "sgmii_clock") {
            k.clock_never = value == "never";
        } else if (key == "negotiation") {
            k.negotiation_never = value == "never";
        } else if (key == "phy_link") {
            k.phy_link = value == "up"     ? FpgaKnobs::Link::up
                         : value == "down" ? FpgaKnobs::Link::down
                                           : FpgaKnobs::Link::automatic;
        } else if (key == "tag_update") {
            k.tag_stuck = value == "stuck";
        } else if (key == "source_mode" && parse_number(value, &n) && n >= 0 && n <= 255) {
            k.source_mode = uint8_t(n);
        } else if (key == "source") {
            k.source = value == "dvi"    ? FpgaKnobs::Source::dvi
                       : value == "none" ? FpgaKnobs::Source::none
                                         : FpgaKnobs::Source::hdmi;
        } else if (key == "ddr") {
            k.ddr = value == "bad"        ? FpgaKnobs::Ddr::bad
                    : value == "recovers" ? FpgaKnobs::Ddr::recovers
                                          : FpgaKnobs::Ddr::good;
        } else if (key == "status") {
            k.status_never = value == "never";
        } else if (key == "net_outputs") {
            k.outputs_stuck = value == "stuck";
        } else if (key == "udp") {
            k.udp_silent = value == "silent";
        } else if (key == "mtd_cut" && parse_number(value, &n) && n >= 0) {
            k.mtd_cut = n;
        } else if (key == "config_ms") {
            parse_fpga_ms(value, &k.config_ns);
        } else if (key == "erase_ms") {
            parse_fpga_ms(value, &k.erase_ns);
        } else if (key == "page_program_ms") {
            parse_fpga_ms(value, &k.page_program_ns);
        } else if (key == "negotiation_ms") {
            parse_fpga_ms(value, &k.negotiation_ns);
        } else if (key == "card_reply_ms") {
            parse_fpga_ms(value, &k.card_reply_ns);
        }
    }
    return k;
}

std::string default_fpga_tags(int version)
{
    return version == 1 ? "20240105-093000" : "20240601-120000";
}

std::string default_fpga_program(int version)
{
    return wire::make_program(default_fpga_tags(version), default_payload(version));
}

// ---- the model ----

FpgaModel::FpgaModel(std::weak_ptr<Board::State> state, std::string root, Pins pins,
                     std::set<std::string> spi_nodes, std::set<std::string> load_nodes)
    : state_(std::move(state)), root_(std::move(root)), pins_(pins), spi_nodes_(std::move(spi_nodes)),
      load_nodes_(std::move(load_nodes))
{
    restore();
    wake_fd_ = ::eventfd(0, EFD_CLOEXEC);
    udp_fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (udp_fd_ >= 0) {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (::bind(udp_fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
            ::getsockname(udp_fd_, reinterpret_cast<sockaddr *>(&addr), &len) == 0) {
            udp_port_ = ntohs(addr.sin_port);
            udp_thread_ = std::thread([this] { udp_serve(); });
        }
    }
}

FpgaModel::~FpgaModel()
{
    stop_ = true;
    if (wake_fd_ >= 0) {
        const uint64_t one = 1;
        if (::write(wake_fd_, &one, sizeof one) != sizeof one) {
            // the thread then notices within its poll period
        }
    }
    if (udp_thread_.joinable())
        udp_thread_.join();
    if (udp_fd_ >= 0)
        ::close(udp_fd_);
    if (wake_fd_ >= 0)
        ::close(wake_fd_);
}

FpgaKnobs FpgaModel::knobs() const
{
    // The board's "fpga.KEY" knobs, parsed again whenever one changed.
    std::string text;
    if (auto s = state_.lock())
        for (const FpgaKnob &k : fpga_knobs())
            text += k.key + "=" + knob_value(*s, "fpga." + k.key) + "\n";
    std::lock_guard<std::mutex> lock(knobs_mu_);
    if (text != knobs_stamp_) {
        knobs_ = parse_fpga_knobs(text);
        knobs_stamp_ = text;
    }
    return knobs_;
}

uint64_t FpgaModel::now() const
{
    auto s = state_.lock();
    return s ? board_now_ns(*s) : 0;
}

void FpgaModel::after(uint64_t ns, const uint64_t *generation, void (FpgaModel::*fn)())
{
    auto s = state_.lock();
    if (!s)
        return;
    std::weak_ptr<FpgaModel> weak = weak_from_this();
    const uint64_t expected = *generation;
    set_board_timer_in(*s, ns, [weak, generation, expected, fn] {
        auto self = weak.lock();
        if (!self)
            return;
        std::lock_guard<std::recursive_mutex> lock(self->mu_);
        if (*generation == expected)
            ((*self).*fn)();
    });
}

void FpgaModel::advance_bus(size_t bytes)
{
    // The transfer's time on the bus counts on a fast clock, so that a wait
    // paced by transfers ends in board time, not in real seconds.
    if (auto s = state_.lock(); s && s->fast)
        advance_board_clock(*s, kTransferNs + bytes * kBusNsPerByte);
}

void FpgaModel::restore()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    std::istringstream in(read_host(Folder(root_), kStateFile));
    std::map<std::string, std::string> values;
    std::string line;
    while (std::getline(in, line)) {
        const auto eq = line.find('=');
        if (eq != std::string::npos)
            values[line.substr(0, eq)] = line.substr(eq + 1);
    }
    const std::string image = read_host(Folder(root_), kProgramFile);
    auto program = wire::valid_program(reinterpret_cast<const uint8_t *>(image.data()), image.size());
    configured_ = values["configured"] == "1" && program.has_value();
    if (configured_) {
        program_ = *program;
        wire::parse_tags(program_.data(), program_.size(), tag_.data());
    }
    if (!values["last_load"].empty()) {
        last_load_ = values["last_load"];
        last_load_result_ = std::atoi(values["last_load_result"].c_str());
    }
    persisted_ = read_host(Folder(root_), kStateFile);
    // The cards' registers: "PORT CARD ADDRESS HEXBYTES", a run of bytes a line.
    std::istringstream cards(read_host(Folder(root_), kCardsFile));
    while (std::getline(cards, line)) {
        std::istringstream words(line);
        int port = -1, card = -1;
        std::string address_text, data;
        long long address = 0;
        words >> port >> card >> address_text >> data;
        if (port < 0 || card < 0 || !parse_number(address_text, &address) || data.size() % 2)
            continue;
        auto &regs = cards_[{port, card}];
        for (size_t i = 0; i + 1 < data.size(); i += 2)
            regs[uint32_t(address) + uint32_t(i / 2)] = uint8_t(std::stoul(data.substr(i, 2), nullptr, 16));
    }
    negotiated_ = configured_ && values["negotiated"] == "1";
    outputs_on_ = configured_ && values["outputs"] == "1";
    gmac_udp_ = values["gmac_udp"] == "1";
    ddr_ok_ = configured_ && values["ddr"] != "0";
    phy_text_ = read_host(Folder(root_), kPhyLinkFile);
    const std::string reset = read_host(Folder(root_), "/sys/class/vexagpios/RTL8211FS_RSTN/value");
    phy_in_reset_ = !reset.empty() && reset[0] == '0';
    // The PHY's set-up is not kept: a host that starts again finds it as
    // after a power cycle, with the link as the board last showed it.
    phy_.set_link(phy_text_.find("0x907") != std::string::npos);
}

void FpgaModel::persist()
{
    std::ostringstream out;
    out << "configured=" << configured_ << "\nnegotiated=" << negotiated_ << "\noutputs=" << outputs_on_
        << "\ngmac_udp=" << gmac_udp_ << "\nddr=" << ddr_ok_ << "\nlast_load=" << last_load_
        << "\nlast_load_result=" << last_load_result_ << "\n";
    if (out.str() != persisted_) {
        persisted_ = out.str();
        write_host(Folder(root_), kStateFile, persisted_);
    }
    if (program_changed_) {
        program_changed_ = false;
        write_host(Folder(root_), kProgramFile, std::string(program_.begin(), program_.end()));
    }
}

void FpgaModel::power_on(const Board &board)
{
    // A pin the SoC never drove is held high by its pull-up. The lines are
    // read before the model's lock is taken: the board may hand line records
    // to this model's watcher while it answers.
    auto level = [&board](int pin) {
        return pin < 0 || board.line_direction(pin) == "in" ? 1 : board.line(pin);
    };
    const int control = level(pins_.control);
    const int config = level(pins_.config);
    std::lock_guard<std::recursive_mutex> lock(mu_);
    control_level_ = control;
    config_level_ = config;
    sync_done();
}

void FpgaModel::sync_done()
{
    const int target = knobs().done == FpgaKnobs::Done::stuck_high ? 1 : configured_ ? 1 : 0;
    if (pins_.done < 0 || target == done_level_)
        return;
    done_level_ = target;
    if (auto s = state_.lock())
        drive_line_from_model(*s, pins_.done, target, "in");
}

void FpgaModel::clear_fpga_state()
{
    pages_.clear();
    negotiated_ = false;
    ++negotiation_generation_;
    tx_asserted_ = rx_asserted_ = false;
    tx_level_ = rx_level_ = 1;
    status_ready_ = false;
    outputs_on_ = false;
    card_frame_.clear();
    card_reply_.clear();
    card_status_ = 0;
    ++card_generation_;
    update_open_ = false;
    update_pieces_.clear();
}

bool FpgaModel::configure(const std::vector<uint8_t> &image, const char *from)
{
    const FpgaKnobs k = knobs();
    auto program = wire::valid_program(image.data(), image.size());
    clear_fpga_state();
    configuring_ = false;
    ++config_generation_;
    configured_ = program.has_value() && k.done != FpgaKnobs::Done::never;
    program_changed_ = true;
    program_.clear();
    tag_ = {};
    if (configured_) {
        program_ = std::move(*program);
        wire::parse_tags(program_.data(), program_.size(), tag_.data());
        ddr_ok_ = k.ddr == FpgaKnobs::Ddr::good;
    }
    last_load_ = from;
    last_load_result_ = configured_ ? 0 : program ? -ETIMEDOUT : -EINVAL;
    sync_done();
    sync_phy();
    persist();
    return configured_;
}

void FpgaModel::reset_fpga()
{
    clear_fpga_state();
    configuring_ = false;
    ++config_generation_;
    configured_ = false;
    program_changed_ = !program_.empty();
    program_.clear();
    tag_ = {};
    sync_done();
    sync_phy();
    persist();
}

void FpgaModel::start_configuration(const char *from)
{
    // The FPGA reads its program from the flash for the part's configuration
    // time; done rises at the end. Off its flash it finds nothing.
    reset_fpga();
    configuring_ = true;
    configuring_from_ = from;
    after(knobs().config_ns, &config_generation_, &FpgaModel::configuration_ends);
}

void FpgaModel::configuration_ends()
{
    configuring_ = false;
    if (control_level_)
        configure_from_flash();
    else
        configure({}, configuring_from_.c_str());
}

void FpgaModel::configure_from_flash()
{
    ensure_flash_locked();
    const Descriptor flash(Folder(root_).open("/dev/mtd0", O_RDONLY));
    std::vector<uint8_t> header(wire::kProgramHeaderSize);
    if (!flash || ::pread(flash.get(), header.data(), header.size(), 0) != ssize_t(header.size()))
        header.assign(header.size(), 0xFF);
    const auto size = wire::header_number(header.data(), header.size(), "size");
    std::vector<uint8_t> image = header;
    if (size && *size <= kFlashSize - wire::kProgramHeaderSize) {
        image.resize(wire::kProgramHeaderSize + *size);
        if (::pread(flash.get(), image.data() + wire::kProgramHeaderSize, *size,
                    off_t(wire::kProgramHeaderSize)) != ssize_t(*size))
            image.resize(wire::kProgramHeaderSize);
    }
    configure(image, configuring_from_.c_str());
}

// ---- lines ----

void FpgaModel::observe_line(int id, int level)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    if (id == pins_.done) {
        // The FPGA drives its done pin: a write from the SoC side does not
        // hold.
        if (done_level_ >= 0 && level != done_level_)
            if (auto s = state_.lock())
                drive_line_from_model(*s, pins_.done, done_level_, "in");
        return;
    }
    if (id < 0)
        return;
    level = level ? 1 : 0;
    if (id == pins_.control) {
        // Off its flash a configured FPGA runs on; one that was reading its
        // program loses it.
        if (control_level_ && !level && configuring_)
            configure({}, configuring_from_.c_str());
        control_level_ = level;
    } else if (id == pins_.config) {
        // Low holds the FPGA in reset; the rising edge configures it.
        const int before = config_level_;
        config_level_ = level;
        if (before && !level)
            reset_fpga();
        else if (!before && level)
            start_configuration("flash");
    }
}

// ---- registers ----

uint8_t FpgaModel::read_byte(uint32_t a) const
{
    auto page = pages_.find(a & ~0xFFFu);
    return page == pages_.end() ? 0 : page->second[a & 0xFFFu];
}

void FpgaModel::read_regs(uint32_t address, uint8_t *out, size_t n) const
{
    if (!configured_) {
        std::memset(out, 0, n);
        return;
    }
    const FpgaKnobs k = knobs();
    for (size_t i = 0; i < n; ++i) {
        const uint32_t a = address + uint32_t(i);
        uint8_t v = read_byte(a);
        if (a == wire::kSgmiiClock)
            v = k.clock_never ? 0 : 1;
        else if (a == wire::kSgmiiNegotiation)
            v = negotiated_;
        else if (a == wire::kDdrState)
            v = ddr_ok_;
        else if (a >= wire::kStatusRecord && a < wire::kStatusRecord + wire::kStatusRecordSize) {
            const uint32_t at = a - wire::kStatusRecord;
            v = 0;
            if (status_ready_) {
                if (at >= 22 && at <= 25)
                    v = kStatusInForce[at - 22];
                const uint16_t input[] = {1920, 1080, 60}; // width, height, refresh
                for (int f = 0; f < 3; ++f) {
                    const uint32_t base = f == 0 ? 33 : f == 1 ? 41 : 47;
                    if (at == base || at == base + 1)
                        v = uint8_t(input[f] >> (8 * (at - base)));
                }
            }
        } else if (a == wire::kUdpHdmiStable)
            v = k.source == FpgaKnobs::Source::hdmi;
        else if (a == wire::kUdpDviStable)
            v = k.source == FpgaKnobs::Source::dvi;
        else if (a == wire::kWindowBase + wire::kSourceMode)
            v = k.source_mode;
        else if (a == wire::kWindowBase + wire::kNetOutputs)
            v = outputs_on_;
        else if (a >= wire::kWindowBase + wire::kProgramTag &&
                 a < wire::kWindowBase + wire::kProgramTag + wire::kTagSize)
            v = tag_[a - wire::kWindowBase - wire::kProgramTag];
        else if (a == wire::kWindowBase + wire::kCardControl)
            v = card_status_;
        else if (a >= wire::kWindowBase + wire::kCardReply &&
                 a < wire::kWindowBase + wire::kCardReply + wire::kCardMaxData) {
            const size_t at = a - wire::kWindowBase - wire::kCardReply;
            v = at < card_reply_.size() ? card_reply_[at] : 0;
        }
        out[i] = v;
    }
}

void FpgaModel::write_regs(uint32_t address, const uint8_t *data, size_t n)
{
    if (!configured_ || n == 0)
        return;
    for (size_t done = 0; done < n;) {
        const uint32_t a = address + uint32_t(done);
        const size_t run = std::min<size_t>(n - done, 0x1000u - (a & 0xFFFu));
        auto page = pages_.find(a & ~0xFFFu);
        if (page == pages_.end())
            page = pages_.emplace(a & ~0xFFFu, std::array<uint8_t, 4096>{}).first;
        std::memcpy(page->second.data() + (a & 0xFFFu), data + done, run);
        done += run;
    }
    auto covers = [&](uint32_t a) { return a - address < n; };
    auto value = [&](uint32_t a) { return data[a - address]; };
    const FpgaKnobs k = knobs();
    bool changed = false;
    for (auto [reg, level, asserted] :
         {std::tuple{wire::kSgmiiTxReset, &tx_level_, &tx_asserted_},
          std::tuple{wire::kSgmiiRxReset, &rx_level_, &rx_asserted_}}) {
        if (!covers(reg))
            continue;
        *level = value(reg);
        if (*level == 0) {
            *asserted = true;
            negotiated_ = false;
            ++negotiation_generation_;
        }
        changed = true;
    }
    if (changed && tx_level_ == 1 && rx_level_ == 1 && tx_asserted_ && rx_asserted_) {
        // Both resets released after a pulse: the link negotiates when the
        // clock runs and the PHY is ready in SGMII mode, and takes its time.
        tx_asserted_ = rx_asserted_ = false;
        ++negotiation_generation_;
        if (!k.negotiation_never && !k.clock_never && !phy_in_reset_ && driver_loaded() && phy_.sgmii_mode())
            after(k.negotiation_ns, &negotiation_generation_, &FpgaModel::negotiation_ends);
    }
    if (covers(wire::kDdrReset) && value(wire::kDdrReset) == 1 && k.ddr == FpgaKnobs::Ddr::recovers)
        ddr_ok_ = true;
    if (covers(wire::kParamStart) && value(wire::kParamStart) == 1)
        status_ready_ = !k.status_never && k.source != FpgaKnobs::Source::none;
    if (covers(wire::kWindowBase + wire::kNetOutputs))
        outputs_on_ = value(wire::kWindowBase + wire::kNetOutputs) == 1 && !k.outputs_stuck;
    if (covers(wire::kWindowBase + wire::kCardControl) && value(wire::kWindowBase + wire::kCardControl) == 1)
        send_card_frame();
    if (changed)
        sync_phy();
    persist();
}

void FpgaModel::window_frame(const uint8_t *buf, size_t n)
{
    if (n < 4)
        return;
    const uint16_t offset = uint16_t(buf[1] << 8 | buf[2]);
    if (offset == wire::kUpdateReset || offset == wire::kUpdateInfo || offset == wire::kUpdatePiece ||
        offset == wire::kUpdateFlash) {
        update_mailbox(offset, buf, n);
        return;
    }
    if (!configured_)
        return;
    if (offset == wire::kCardFrame) {
        card_frame_.assign(buf, buf + n);
        return;
    }
    write_regs(wire::kWindowBase + offset, buf + 3, n - 4);
}

void FpgaModel::send_card_frame()
{
    // The frame goes out on its port; the reply, if a card gives one, comes
    // back after the card's reply time.
    const FpgaKnobs k = knobs();
    card_status_ = 0x04;
    card_reply_.clear();
    ++card_generation_;
    card_sent_ = card_frame_;
    const auto frame = wire::decode_card_frame(card_sent_.data(), card_sent_.size());
    if (!frame || frame->port >= kPorts || k.cards[frame->port] <= 0)
        return; // no such port, or no card on it
    if (frame->write) {
        for (int card = 0; card < k.cards[frame->port]; ++card) {
            auto &regs = cards_[{frame->port, card}];
            for (size_t i = 0; i < frame->data.size(); ++i)
                regs[frame->address + uint32_t(i)] = frame->data[i];
        }
        persist_cards();
    }
    if (k.silent_ports.count(frame->port))
        return;
    after(k.card_reply_ns, &card_generation_, &FpgaModel::card_answers);
}

void FpgaModel::card_answers()
{
    const auto frame = wire::decode_card_frame(card_sent_.data(), card_sent_.size());
    if (!frame)
        return;
    if (!frame->write) {
        const auto &regs = cards_[{frame->port, 0}];
        for (uint32_t i = 0; i < frame->length; ++i) {
            auto it = regs.find(frame->address + i);
            card_reply_.push_back(it == regs.end() ? 0 : it->second);
        }
    }
    card_status_ = wire::kCardReady;
}

void FpgaModel::update_mailbox(uint16_t offset, const uint8_t *buf, size_t n)
{
    if (offset == wire::kUpdateReset) {
        // The FPGA's configuration logic takes the reset whether or not a
        // program runs.
        if (buf[3] == 1)
            reset_fpga();
        else if (buf[3] == 0)
            start_configuration("update");
        return;
    }
    if (!configured_)
        return;
    if (offset == wire::kUpdateInfo && n >= wire::kUpdateInfoSize) {
        const uint64_t size = uint64_t(wire::le32(buf + 3)) * 256 + wire::le16(buf + 7);
        update_open_ = size <= kFlashSize - wire::kProgramHeaderSize;
        update_size_ = uint32_t(update_open_ ? size : 0);
        update_sum_ = wire::le16(buf + 9);
        std::memcpy(update_tag_.data(), buf + 11, wire::kTagSize);
        update_pieces_.clear();
    } else if (offset == wire::kUpdatePiece && n >= wire::kUpdatePieceSize && update_open_) {
        const uint16_t index = wire::le16(buf + 3);
        const uint16_t length = wire::le16(buf + 5);
        const uint8_t *data = buf + 7;
        if (length <= wire::kUpdatePieceData &&
            wire::le16(buf + 7 + wire::kUpdatePieceData) == wire::sum16(data, length))
            update_pieces_[index].assign(data, data + length);
    } else if (offset == wire::kUpdateFlash && buf[3] == 1 && update_open_) {
        update_open_ = false;
        std::vector<uint8_t> payload;
        for (uint16_t i = 0; payload.size() < update_size_; ++i) {
            auto piece = update_pieces_.find(i);
            if (piece == update_pieces_.end() || piece->second.empty())
                return; // a missing piece: nothing is written
            payload.insert(payload.end(), piece->second.begin(), piece->second.end());
        }
        if (payload.size() != update_size_ || wire::sum16(payload.data(), payload.size()) != update_sum_)
            return;
        if (knobs().tag_stuck)
            return; // the FPGA keeps its old program
        // The FPGA erases and writes its flash on its own, in the time the
        // flash takes, while the SoC waits.
        update_image_ = wire::make_program(tags_of(update_tag_), std::string(payload.begin(), payload.end()));
        const size_t blocks = (update_image_.size() + kEraseSize - 1) / kEraseSize;
        const size_t pages = (update_image_.size() + kPageSize - 1) / kPageSize;
        const FpgaKnobs k = knobs();
        after(blocks * k.erase_ns + pages * k.page_program_ns, &config_generation_, &FpgaModel::update_written);
    }
}

void FpgaModel::update_written()
{
    ensure_flash_locked();
    std::lock_guard<std::mutex> flash(flash_mu_);
    const Descriptor fd(Folder(root_).open("/dev/mtd0", O_RDWR));
    if (!fd)
        return;
    // Erased, then programmed: the image lands on 0xFF cells as it is.
    std::string cells = update_image_;
    cells.resize((cells.size() + kEraseSize - 1) / kEraseSize * kEraseSize, char(0xFF));
    if (::pwrite(fd.get(), cells.data(), cells.size(), 0) != ssize_t(cells.size())) {
        // the flash file failed: the old program stays as far as it was kept
    }
}

void FpgaModel::persist_cards() const
{
    static const char hex[] = "0123456789abcdef";
    std::ostringstream out;
    for (const auto &[which_card, regs] : cards_) {
        const auto &which = which_card; // a lambda cannot capture a binding (C++17)
        uint32_t start = 0, next = 0;
        std::string run;
        auto flush = [&] {
            if (!run.empty())
                out << which.first << ' ' << which.second << " 0x" << std::hex << start << std::dec << ' ' << run
                    << '\n';
            run.clear();
        };
        for (const auto &[address, value] : regs) {
            if (run.empty() || address != next) {
                flush();
                start = address;
            }
            run += hex[value >> 4];
            run += hex[value & 0xF];
            next = address + 1;
        }
        flush();
    }
    write_host(Folder(root_), kCardsFile, out.str());
}

// ---- SPI ----

int FpgaModel::spi(const std::string &node, char kind, uint8_t *buf, size_t n)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    // The driver copies a transfer into its buffer first: a longer one never
    // reaches the bus.
    if (n > knobs().spi_bufsiz)
        return -EMSGSIZE;
    const uint64_t now = this->now();
    if (transfers_.size() >= kRecordMax)
        transfers_.erase(transfers_.begin(), transfers_.begin() + kRecordMax / 2);
    transfers_.push_back({node, kind, std::vector<uint8_t>(buf, buf + n), now});
    if (knobs().spi_fails)
        return -EIO;
    advance_bus(n);
    if (n == 0)
        return 0;
    std::vector<uint8_t> rx(n, 0);
    switch (buf[0]) {
    case wire::kWrite:
        if (n >= 6)
            write_regs(wire::be32(buf + 1), buf + 5, n - 6);
        break;
    case wire::kRead:
        if (n >= wire::kReadHead) {
            std::memcpy(rx.data(), buf, wire::kReadHead);
            read_regs(wire::be32(buf + 1), rx.data() + wire::kReadHead, n - wire::kReadHead);
        }
        break;
    case wire::kWindowWrite:
        window_frame(buf, n);
        break;
    case wire::kWindowRead:
        if (n >= wire::kWindowReadHead)
            read_regs(wire::kWindowBase + (uint32_t(buf[1]) << 8 | buf[2]),
                      rx.data() + wire::kWindowReadHead, n - wire::kWindowReadHead);
        break;
    default:
        break;
    }
    if (kind == 'r' || kind == 'x')
        std::memcpy(buf, rx.data(), n);
    return 0;
}

// ---- loading ----

int FpgaModel::hal_load(const std::string &drv, const std::vector<uint8_t> &file)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    ++hal_loads_;
    if (!drv.empty() && !load_nodes_.count(drv))
        return -ENODEV;
    if (configure(file, "hal"))
        return 0;
    return knobs().done == FpgaKnobs::Done::never ? -ETIMEDOUT : -EINVAL;
}

void FpgaModel::load_node_open()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    load_image_.clear();
    reset_fpga();
}

long FpgaModel::load_node_write(const uint8_t *data, size_t n)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    if (load_image_.size() + n > kLoadImageSize)
        return -ENOSPC;
    load_image_.insert(load_image_.end(), data, data + n);
    if (load_image_.size() == kLoadImageSize && !configure(load_image_, "fpga_load"))
        return knobs().done == FpgaKnobs::Done::never ? -ETIMEDOUT : -EINVAL;
    return long(n);
}

// ---- flash ----

std::string FpgaModel::flash_file()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    ensure_flash_locked();
    return "/dev/mtd0";
}

void FpgaModel::ensure_flash_locked()
{
    const Folder folder(root_);
    if (folder.exists("/dev/mtd0"))
        return;
    // A new board's flash: erased, with the program it runs.
    if (!folder.exists("/.board"))
        return;
    folder.make_dirs("/dev");
    std::string image(kFlashSize, char(0xFF));
    const std::string program = default_fpga_program(1);
    image.replace(0, program.size(), program);
    write_host(folder, "/dev/mtd0", image);
}

bool FpgaModel::nor_erase(size_t offset, size_t n)
{
    if (offset % kEraseSize || n % kEraseSize || offset > kFlashSize || n > kFlashSize - offset)
        return false;
    const uint64_t block_ns = knobs().erase_ns;
    flash_file();
    auto s = state_.lock();
    std::lock_guard<std::mutex> flash(flash_mu_);
    const Descriptor fd(Folder(root_).open("/dev/mtd0", O_WRONLY));
    if (!fd)
        return false;
    flash_done_ = 0;
    flash_total_ = n / kEraseSize;
    flash_op_ = 'e';
    const std::vector<uint8_t> erased(kEraseSize, 0xFF);
    bool ok = true;
    for (size_t at = offset; at < offset + n && ok; at += kEraseSize) {
        // The block reads erased only once its erase has run.
        if (s)
            take_board_time(*s, block_ns);
        ok = ::pwrite(fd.get(), erased.data(), erased.size(), off_t(at)) == ssize_t(erased.size());
        ++flash_done_;
    }
    flash_op_ = 0;
    return ok;
}

bool FpgaModel::nor_program(size_t offset, const uint8_t *data, size_t n, long long cut)
{
    if (offset > kFlashSize || n > kFlashSize - offset)
        return false;
    const uint64_t page_ns = knobs().page_program_ns;
    const size_t take = cut >= 0 && size_t(cut) < n ? size_t(cut) : n;
    flash_file();
    auto s = state_.lock();
    std::lock_guard<std::mutex> flash(flash_mu_);
    const Descriptor fd(Folder(root_).open("/dev/mtd0", O_RDWR));
    if (!fd)
        return false;
    // The write goes page by page: a page program covers what of the data
    // falls within one 256-byte page.
    flash_done_ = 0;
    flash_total_ = n ? (offset + n - 1) / kPageSize - offset / kPageSize + 1 : 0;
    flash_op_ = 'w';
    bool ok = true;
    for (size_t at = 0; at < take && ok;) {
        const size_t run = std::min(take - at, kPageSize - (offset + at) % kPageSize);
        if (s)
            take_board_time(*s, page_ns);
        uint8_t cells[kPageSize];
        ok = ::pread(fd.get(), cells, run, off_t(offset + at)) == ssize_t(run);
        // NOR: programming can only clear bits.
        for (size_t i = 0; ok && i < run; ++i)
            cells[i] &= data[at + i];
        ok = ok && ::pwrite(fd.get(), cells, run, off_t(offset + at)) == ssize_t(run);
        at += run;
        ++flash_done_;
    }
    flash_op_ = 0;
    return ok && take == n;
}

CommandResult FpgaModel::mtd_debug(const std::vector<std::string> &argv)
{
    const CommandResult usage{1 << 8, "usage: mtd_debug info <device>\n"
                                      "       mtd_debug read <device> <offset> <len> <dest-filename>\n"
                                      "       mtd_debug write <device> <offset> <len> <source-filename>\n"
                                      "       mtd_debug erase <device> <offset> <len>\n"};
    if (argv.size() < 3)
        return usage;
    const std::string &op = argv[1];
    if (argv[2] != "/dev/mtd0")
        return {1 << 8, "open(): No such file or directory\n"};
    flash_file();
    char line[256];
    if (op == "info" && argv.size() == 3) {
        std::snprintf(line, sizeof line,
                      "mtd.type = MTD_NORFLASH\nmtd.flags = MTD_CAP_NORFLASH\nmtd.size = %zu (%zuM)\n"
                      "mtd.erasesize = %zu (%zuK)\n",
                      kFlashSize, kFlashSize >> 20, kEraseSize, kEraseSize >> 10);
        return {0, line};
    }
    long long offset = 0, len = 0;
    if (argv.size() < 5 || !parse_number(argv[3], &offset) || !parse_number(argv[4], &len) ||
        offset < 0 || len < 0)
        return usage;
    if (op == "erase" && argv.size() == 5) {
        if (!nor_erase(size_t(offset), size_t(len)))
            return {1 << 8, "MEMERASE: Invalid argument\n"};
        std::snprintf(line, sizeof line, "Erased %lld bytes from address 0x%.8llx in flash\n", len, offset);
        return {0, line};
    }
    if ((op != "write" && op != "read") || argv.size() != 6)
        return usage;
    const std::string &file = argv[5];
    if (file.empty() || file[0] != '/')
        return {1 << 8, "open(): No such file or directory\n"};
    if (size_t(offset) > kFlashSize || size_t(len) > kFlashSize - size_t(offset))
        return {1 << 8, "read()/write(): Invalid argument\n"};
    const Folder folder(root_);
    if (op == "read") {
        std::string data(static_cast<size_t>(len), '\0');
        {
            std::lock_guard<std::mutex> busy(flash_mu_);
            const Descriptor flash(folder.open("/dev/mtd0", O_RDONLY));
            if (!flash ||
                ::pread(flash.get(), data.data(), data.size(), off_t(offset)) != ssize_t(data.size()))
                return {1 << 8, "read(): Input/output error\n"};
        }
        if (write_host(folder, file, data) != 0)
            return {1 << 8, std::string("open(): ") + std::strerror(errno) + "\n"};
        std::snprintf(line, sizeof line, "Copied %lld bytes from address 0x%.8llx in flash to %s\n", len,
                      offset, file.c_str());
        return {0, line};
    }
    const auto read = folder.read(file);
    if (!read)
        return {1 << 8, std::string("open(): ") + std::strerror(errno) + "\n"};
    const std::string &source = *read;
    if (source.size() < size_t(len))
        return {1 << 8, "file_to_flash: short read\n"};
    if (!nor_program(size_t(offset), reinterpret_cast<const uint8_t *>(source.data()), size_t(len),
                     knobs().mtd_cut))
        return {1 << 8, "write(): Input/output error\n"};
    std::snprintf(line, sizeof line, "Copied %lld bytes from %s to address 0x%.8llx in flash\n", len,
                  file.c_str(), offset);
    return {0, line};
}

// ---- PHY ----

bool FpgaModel::driver_loaded() const
{
    std::istringstream in(read_host(Folder(root_), kModules));
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, std::strlen(kMacDriver) + 1, std::string(kMacDriver) + " ") == 0)
            return true;
    return false;
}

void FpgaModel::sync_phy()
{
    const FpgaKnobs k = knobs();
    bool link = configured_ && !phy_in_reset_ && negotiated_ && phy_.sgmii_mode() && driver_loaded();
    if (k.phy_link != FpgaKnobs::Link::automatic)
        link = k.phy_link == FpgaKnobs::Link::up;
    phy_.set_link(link && !phy_in_reset_);
    const std::string text = link ? "0x907\n" : phy_in_reset_ ? "0x0\n" : "0x902\n";
    if (text != phy_text_) {
        phy_text_ = text;
        write_host(Folder(root_), kPhyLinkFile, text);
    }
}

void FpgaModel::negotiation_ends()
{
    const FpgaKnobs k = knobs();
    if (!configured_ || k.clock_never || k.negotiation_never || phy_in_reset_)
        return;
    negotiated_ = true;
    sync_phy();
    persist();
}

void FpgaModel::phy_reset_written(const std::string &contents)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    char last = 0;
    // One open may carry several levels ("0", a wait, "1"): each counts.
    for (char c : contents) {
        if (c == '0') {
            phy_in_reset_ = true;
            phy_.reset();
            negotiated_ = false;
            ++negotiation_generation_;
        } else if (c == '1') {
            phy_in_reset_ = false;
        } else {
            continue;
        }
        last = c;
    }
    if (last && contents != std::string(1, last) + "\n")
        write_host(Folder(root_), "/sys/class/vexagpios/RTL8211FS_RSTN/value", std::string(1, last) + "\n");
    sync_phy();
    persist();
}

void FpgaModel::phyreg_written(const std::string &contents)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    // What the driver shows of the last read: the model's own text coming
    // back through the watcher is not a command.
    if (contents == phyreg_text_)
        return;
    std::istringstream in(contents);
    std::string line, shown;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string op, reg_text, value_text, extra;
        words >> op >> reg_text >> value_text >> extra;
        long long reg = 0, value = 0;
        if (!extra.empty() || !parse_number(reg_text, &reg) || reg < 0 || reg > 0xFFFF)
            continue;
        if (op == "w" && parse_number(value_text, &value) && value >= 0 && value <= 0xFFFF) {
            // A PHY held in reset does not answer on the management bus.
            if (!phy_in_reset_)
                phy_.write(uint16_t(reg), uint16_t(value));
        } else if (op == "r" && value_text.empty()) {
            // The management bus reads all ones where no PHY answers.
            const auto v = phy_in_reset_ ? std::optional<uint16_t>(0xFFFF) : phy_.read(uint16_t(reg));
            if (!v)
                continue;
            char text[64];
            std::snprintf(text, sizeof text, "page 0x%x reg 0x%llx: 0x%04x\n", phy_.page(), reg, *v);
            shown = text;
        }
    }
    if (!shown.empty()) {
        phyreg_text_ = shown;
        write_host(Folder(root_), kPhyRegFile, shown);
    }
    sync_phy();
}

CommandResult FpgaModel::insmod(const std::vector<std::string> &argv)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    if (argv.size() < 2)
        return {1 << 8, "Usage: insmod FILE [SYMBOL=VALUE]...\n"};
    const std::string &file = argv[1];
    if (file.empty() || file[0] != '/' || !Folder(root_).is_regular(file))
        return {1 << 8, "insmod: can't read '" + file + "': No such file or directory\n"};
    std::string name = fs::path(file).stem().string();
    std::replace(name.begin(), name.end(), '-', '_');
    std::string modules = read_host(Folder(root_), kModules);
    std::istringstream in(modules);
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, name.size() + 1, name + " ") == 0)
            return {1 << 8, "insmod: can't insert '" + file + "': File exists\n"};
    write_host(Folder(root_), kModules, modules + name + " 16384 0 - Live 0x0000000000000000\n");
    sync_phy();
    return {};
}

// ---- UDP ----

void FpgaModel::switch_gmac()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    gmac_udp_ = true;
    persist();
}

void FpgaModel::udp_serve()
{
    namespace u = fpga_udp;
    std::vector<uint8_t> in(u::kHead + u::kMaxData), out(u::kHead + u::kMaxData);
    while (!stop_) {
        pollfd p[2] = {{udp_fd_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
        if (::poll(p, wake_fd_ >= 0 ? 2 : 1, 100) <= 0 || !(p[0].revents & POLLIN))
            continue;
        sockaddr_in from{};
        socklen_t from_len = sizeof from;
        const ssize_t n = ::recvfrom(udp_fd_, in.data(), in.size(), 0, reinterpret_cast<sockaddr *>(&from),
                                     &from_len);
        if (n < ssize_t(u::kHead) || in[0] != 'V' || in[1] != 'F')
            continue;
        const uint8_t op = in[2];
        const uint32_t address = u::get32(&in[6]);
        const uint16_t len = u::get16(&in[10]);
        uint8_t status = 0;
        uint16_t reply_len = 0;
        {
            std::lock_guard<std::recursive_mutex> lock(mu_);
            // An unconfigured FPGA has no link to answer on.
            if (knobs().udp_silent || !configured_)
                continue;
            if (in[3] != 1 || len > u::kMaxData) {
                status = EINVAL;
            } else if (op == u::kWrite) {
                if (size_t(n) - u::kHead < len) {
                    status = EINVAL;
                } else {
                    if (udp_writes_.size() >= kRecordMax)
                        udp_writes_.erase(udp_writes_.begin(), udp_writes_.begin() + kRecordMax / 2);
                    udp_writes_.push_back({address, std::vector<uint8_t>(&in[u::kHead], &in[u::kHead] + len)});
                    write_regs(address, &in[u::kHead], len);
                }
            } else if (op == u::kRead) {
                read_regs(address, &out[u::kHead], len);
                reply_len = len;
            } else {
                status = EINVAL;
            }
        }
        out[0] = 'V';
        out[1] = 'F';
        out[2] = uint8_t(op | u::kReplyBit);
        out[3] = status;
        std::memcpy(&out[4], &in[4], 2);
        u::put32(&out[6], address);
        u::put16(&out[10], reply_len);
        ::sendto(udp_fd_, out.data(), u::kHead + reply_len, 0, reinterpret_cast<sockaddr *>(&from), from_len);
    }
}

// ---- accessors ----

bool FpgaModel::configured() const
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    return configured_;
}

std::vector<uint8_t> FpgaModel::program() const
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    return program_;
}

std::array<uint8_t, 7> FpgaModel::tag() const
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    return tag_;
}

uint8_t FpgaModel::reg(uint32_t address) const { return regs(address, 1)[0]; }

std::vector<uint8_t> FpgaModel::regs(uint32_t address, size_t n) const
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    std::vector<uint8_t> out(n);
    read_regs(address, out.data(), n);
    return out;
}

std::vector<uint8_t> FpgaModel::load_image() const
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    return load_image_;
}

int FpgaModel::hal_loads() const
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    return hal_loads_;
}

std::vector<uint8_t> FpgaModel::card_registers(int port, int card, uint32_t address, size_t n) const
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    std::vector<uint8_t> out(n, 0);
    auto regs = cards_.find({port, card});
    if (regs == cards_.end())
        return out;
    for (size_t i = 0; i < n; ++i) {
        auto it = regs->second.find(address + uint32_t(i));
        if (it != regs->second.end())
            out[i] = it->second;
    }
    return out;
}

bool FpgaModel::gmac_udp() const
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    return gmac_udp_;
}

bool FpgaModel::phy_link() const
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    return phy_text_.find("0x907") != std::string::npos;
}

std::vector<FpgaModel::Transfer> FpgaModel::transfers() const
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    return transfers_;
}

size_t FpgaModel::transfer_count() const
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    return transfers_.size();
}

std::vector<FpgaModel::UdpWrite> FpgaModel::udp_writes() const
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    return udp_writes_;
}

void FpgaModel::clear_record()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    transfers_.clear();
    udp_writes_.clear();
    hal_loads_ = 0;
}

std::optional<uint16_t> FpgaModel::phy_register(uint16_t reg) const
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    if (phy_in_reset_)
        return 0xFFFF;
    return phy_.read(reg);
}

std::string FpgaModel::state_text() const
{
    const FpgaKnobs k = knobs();
    std::lock_guard<std::recursive_mutex> lock(mu_);
    std::ostringstream out;
    out << "configured=" << configured_ << "\nconfiguring=" << configuring_ << "\nprogram_bytes=" << program_.size()
        << "\ntag=" << (configured_ ? hex_bytes(tag_.data(), tag_.size()) : "") << "\ndone=" << done_level_
        << "\nlast_load=" << last_load_ << "\nlast_load_result=" << last_load_result_
        << "\nnegotiated=" << negotiated_ << "\nphy_link=" << (phy_text_.find("0x907") != std::string::npos)
        << "\nnet_outputs=" << outputs_on_ << "\ngmac_udp=" << gmac_udp_ << "\nports=" << kPorts << "\ncards=";
    for (int port = 0; port < kPorts; ++port)
        out << (port ? "," : "") << k.cards[size_t(port)];
    out << "\nsilent_ports=";
    for (int port : k.silent_ports)
        out << (port == *k.silent_ports.begin() ? "" : ",") << port;
    const char op = flash_op_;
    out << "\nflash_op=" << (op == 'e' ? "erase" : op == 'w' ? "write" : "") << "\nflash_done=" << flash_done_
        << "\nflash_total=" << flash_total_ << "\nupdate_pieces=" << update_pieces_.size()
        << "\nupdate_total=" << (update_open_ ? (update_size_ + 511) / 512 : 0) << "\nspi_transfers=" << transfers_.size()
        << "\nudp_writes=" << udp_writes_.size() << "\n";
    return out.str();
}

} // namespace vexa::sim
