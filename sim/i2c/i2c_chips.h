// The board's I2C chips: two audio codecs, an RTC chip and a clock chip, as
// registers that keep what is written.
//
// State lives in ROOT/.board/i2c, one register a line: "BUS ADDR REG VALUE"
// (hex), so every process that attaches the board sees the same chips. A
// chip exists when it has a register line; a person may edit the file. The
// board's knob i2c.silent ("BUS@ADDR,...") names chips that never acknowledge
// (a read or write fails with ENXIO, as the bus driver answers a NAK); the
// RTC chip of the product INI is silent too while rtc.chip=silent.
#ifndef VEXA_SIM_I2C_CHIPS_H
#define VEXA_SIM_I2C_CHIPS_H

#include <cstdint>
#include <optional>
#include <string>

#include "sim/board.h"

namespace vexa::sim {

// A register's value; nothing when the chip is missing or silent.
std::optional<uint8_t> i2c_register(const Board &board, const std::string &bus, uint8_t addr,
                                    uint8_t reg);
// Sets a register (and so makes the chip exist).
void set_i2c_register(const Board &board, const std::string &bus, uint8_t addr, uint8_t reg,
                      uint8_t value);
// Makes a chip stop answering (silent) or answer again.
void set_i2c_silent(const Board &board, const std::string &bus, uint8_t addr, bool silent);

} // namespace vexa::sim

#endif
