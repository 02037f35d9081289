// Reads the board for its view: the state of each part of the board as a
// JSON text, through the library and the board's own API.
//
// Sections (each a JSON value): "product", "lines", "fan", "adc", "rtc",
// "watchdog", "mcu", "fpga", "serial", "display", "env", "knobs". The log
// and the serial lines' output come as increments.
//
// Threads: one thread at a time (the library's product record is shared
// process state).
#ifndef VEXA_VIEW_READER_H
#define VEXA_VIEW_READER_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "sim/board.h"

namespace vexa::view {

class Reader {
public:
    explicit Reader(vexa::sim::Board &board);

    // Loads the product record again (after the product INI changed).
    void reload_config();
    // Every section, by name.
    std::map<std::string, std::string> sections();
    // Log records (JSON objects) logged since the last call; the first call
    // gives the newest `first` of the log.
    std::vector<std::string> new_log(size_t first);

    // What a plain line's board side wrote since the last call: appended
    // bytes, or (reset) the whole of what is kept when the capture started
    // over.
    struct Output {
        std::string path;
        std::string bytes;
        bool reset = false;
    };
    std::vector<Output> new_output();

private:
    std::string product();
    std::string lines();
    std::string fan();
    std::string adc();
    std::string rtc();
    std::string watchdog();
    std::string mcu();
    std::string fpga();
    std::string serial();
    std::string display();
    std::string env();
    std::string knobs();

    vexa::sim::Board &board_;
    bool log_started_ = false;
    std::map<std::string, std::string> output_;    // board path -> capture as last read
    std::string watchdog_feeds_;                     // feeds count as last seen
    int64_t watchdog_fed_ms_ = 0;                    // wall-clock ms when it changed
};

} // namespace vexa::view

#endif
