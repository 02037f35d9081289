// A fixture on a fresh virtual board in a temporary directory, with the
// board's clock running fast.
#ifndef VEXA_TESTS_BOARD_FIXTURE_H
#define VEXA_TESTS_BOARD_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "sim/board.h"
#include "support/ini_text.h"
#include "vexasdk/product_config.h"

namespace vexa::test {

class BoardTest : public ::testing::Test {
protected:
    // A fresh default board; tests that need another build their own with
    // rebuild().
    void SetUp() override { board_.emplace(sim::Board::Builder().build()); }
    void TearDown() override { board_.reset(); }

    void rebuild(sim::Board::Builder builder)
    {
        board_.reset();
        board_.emplace(builder.build());
    }

    sim::Board &board() { return *board_; }

    // Log lines ("P/TAG: TEXT") under one tag.
    std::vector<std::string> log_of(const std::string &tag)
    {
        std::vector<std::string> lines;
        for (auto &record : board().log())
            if (record.tag == tag)
                lines.push_back(record.line());
        return lines;
    }

    bool logged(const std::string &line)
    {
        auto lines = board().log_lines();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }

private:
    std::optional<sim::Board> board_;
};

// A fresh default board with the product record loaded and the log empty.
class ProductTest : public BoardTest {
protected:
    void SetUp() override
    {
        BoardTest::SetUp();
        load();
    }

    void load()
    {
        bi_init_product_config();
        board().clear_log();
    }

    // A fresh board whose INI sets key to value (nullopt removes the key),
    // with the record loaded.
    void configure(const std::string &key, std::optional<std::string> value)
    {
        rebuild(sim::Board::Builder().ini(ini_with(key, std::move(value))));
        load();
    }
};

} // namespace vexa::test

#endif
