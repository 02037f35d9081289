// Attaches the serial lines of the product INI and the MCU behind the MCU's
// line, and has the MCU follow the files of its reset lines.
#include <iniparser.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "sim/board.h"
#include "sim/serial/mcu_model.h"
#include "sim/serial/serial_line.h"

namespace vexa::sim {

namespace {

struct Lines {
    std::map<std::string, std::shared_ptr<SerialLine>> by_path;
    std::shared_ptr<McuModel> mcu;
};

std::mutex g_mu;
// By board root: the lines of each board attached in this process.
std::map<std::string, std::weak_ptr<Lines>> g_lines;

std::shared_ptr<Lines> lines_of(const Board &board)
{
    std::lock_guard<std::mutex> lock(g_mu);
    auto it = g_lines.find(board.root());
    return it == g_lines.end() ? nullptr : it->second.lock();
}

struct DictDeleter {
    void operator()(dictionary *d) const { iniparser_freedict(d); }
};

const char *const kSerialKeys[] = {
    "serial:serial_lora_1", "serial:serial_hdmi_1", "serial:serial_232_1", "serial:serial_232_2",
    "serial:serial_485_1",  "serial:serial_485_2",  "serial:serial_ttl_1", "serial:serial_ttl_2",
};

bool usable(const char *path)
{
    return path && path[0] == '/' && std::string(path).find("UNDEF") == std::string::npos;
}

// Settings of the MCU model kept with the board, so that every process that
// attaches it (vexactl, board serve) sees the same MCU: "/.board/mcu-model",
// lines "version=TEXT", "links=MASK", "type=N".
void apply_model_settings(const Board &board, McuModel &mcu)
{
    if (!board.exists("/.board/mcu-model"))
        return;
    std::istringstream in(board.read_file("/.board/mcu-model"));
    std::string line;
    while (std::getline(in, line)) {
        const auto eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        const std::string key = line.substr(0, eq);
        const std::string value = line.substr(eq + 1);
        char *end = nullptr;
        const unsigned long long number = std::strtoull(value.c_str(), &end, 0);
        const bool numeric = end && *end == '\0' && !value.empty();
        if (key == "version")
            mcu.set_version(value);
        else if (key == "links" && numeric)
            mcu.set_link_mask(number);
        else if (key == "type" && numeric && number >= 1 && number <= 4)
            mcu.set_type(static_cast<int>(number));
    }
}

} // namespace

std::shared_ptr<SerialLine> serial_line(const Board &board, const std::string &board_path)
{
    auto lines = lines_of(board);
    if (!lines)
        return nullptr;
    auto it = lines->by_path.find(board_path);
    return it == lines->by_path.end() ? nullptr : it->second;
}

std::vector<std::shared_ptr<SerialLine>> serial_lines(const Board &board)
{
    std::vector<std::shared_ptr<SerialLine>> out;
    if (auto lines = lines_of(board))
        for (auto &[path, line] : lines->by_path)
            out.push_back(line);
    return out;
}

std::shared_ptr<McuModel> mcu_model(const Board &board)
{
    auto lines = lines_of(board);
    return lines ? lines->mcu : nullptr;
}

} // namespace vexa::sim

using namespace vexa::sim;

VEXA_SIM_ATTACHER(serial_lines)
{
    if (!board.exists("/vendor/etc/product.ini"))
        return;
    std::unique_ptr<dictionary, DictDeleter> dict(
        iniparser_load(board.host_path("/vendor/etc/product.ini").c_str()));
    if (!dict)
        return;
    auto lines = std::make_shared<Lines>();
    const char *mcu_path = iniparser_getstring(dict.get(), "mcu:mcu_uart_path", nullptr);
    if (usable(mcu_path)) {
        lines->mcu = std::make_shared<McuModel>(mcu_path, board.root() + "/.board/mcu-flash.bin");
        lines->by_path[mcu_path] = lines->mcu;
        lines->mcu->set_watchdog_line(iniparser_getint(dict.get(), "mcu_wdt:mcu_wdt_switch", -1));
        if (const char *version = iniparser_getstring(dict.get(), "mcu:mcu_fw_version", nullptr))
            lines->mcu->set_version(version);
        const int type = iniparser_getint(dict.get(), "mcu:mcu_type", 1);
        lines->mcu->set_type(type >= 1 && type <= 4 ? type : 1);
        apply_model_settings(board, *lines->mcu);
        std::weak_ptr<McuModel> weak = lines->mcu;
        board.watch_lines([weak](int id, int level, uint64_t now_ns) {
            if (auto mcu = weak.lock())
                mcu->observe_line(id, level, now_ns);
        });
    }
    for (const char *key : kSerialKeys) {
        const char *path = iniparser_getstring(dict.get(), key, nullptr);
        if (usable(path) && !lines->by_path.count(path))
            lines->by_path[path] = std::make_shared<SerialLine>(path);
    }
    for (auto &[path, line] : lines->by_path)
        board.add_model(path, line);
    {
        std::lock_guard<std::mutex> lock(g_mu);
        g_lines[board.root()] = lines;
    }
    // The MCU's reset lines are files that any writer drives (the library's
    // shell echo, a person's shell, another process); the watchers keep the
    // lines alive as long as the board holds them.
    if (lines->mcu) {
        auto follow = [lines](bool boot0) {
            return [lines, boot0](const std::string &, const std::string &contents) {
                if (contents != "0\n" && contents != "1\n" && contents != "0" && contents != "1")
                    return;
                const int level = contents[0] == '1';
                if (boot0)
                    lines->mcu->set_boot0(level);
                else
                    lines->mcu->set_nrst(level);
            };
        };
        board.watch_file("/sys/class/vexagpios/MCU_BOOT0/value", follow(true));
        board.watch_file("/sys/class/vexagpios/MCU_NRST/value", follow(false));
    }
}
