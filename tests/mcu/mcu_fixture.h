// A fresh board with the update configuration loaded and its MCU model at hand.
#ifndef VEXA_TESTS_MCU_FIXTURE_H
#define VEXA_TESTS_MCU_FIXTURE_H

#include <string>
#include <vector>

#include "sim/serial/mcu_model.h"
#include "support/board_fixture.h"
#include "vexasdk/selftest.h"

namespace vexa::test {

class McuTest : public BoardTest {
protected:
    void SetUp() override
    {
        BoardTest::SetUp();
        load();
    }
    void reload(sim::Board::Builder builder)
    {
        rebuild(std::move(builder));
        load();
    }
    sim::McuModel &mcu()
    {
        auto model = sim::mcu_model(board());
        EXPECT_TRUE(model) << "the board has no MCU line";
        return *model;
    }
    std::shared_ptr<sim::SerialLine> line(const char *path) { return sim::serial_line(board(), path); }
    // The log lines under one tag, without the tag prefix check.
    std::vector<std::string> fw_log() { return log_of("vexa_system_fw_update"); }

    static std::string bytes(const std::vector<uint8_t> &v) { return std::string(v.begin(), v.end()); }

private:
    void load()
    {
        ASSERT_EQ(parseConfigInfo(), 0);
        board().clear_log();
        board().clear_commands();
    }
};

} // namespace vexa::test

#endif
