// A fresh board with the product record and the update configuration
// loaded, PRODUCT_NUM 0, and the board's FPGA model at hand.
#ifndef VEXA_TESTS_FPGA_FIXTURE_H
#define VEXA_TESTS_FPGA_FIXTURE_H

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "sim/fpga/fpga_model.h"
#include "support/board_fixture.h"
#include "vexasdk/fpga.h"
#include "vexasdk/selftest.h"

namespace vexa::test {

using Bytes = std::vector<uint8_t>;

// Bytes from hex text ("45 04 00 01").
inline Bytes hex(const std::string &text)
{
    Bytes out;
    std::istringstream in(text);
    std::string word;
    while (in >> word)
        out.push_back(uint8_t(std::stoul(word, nullptr, 16)));
    return out;
}

inline Bytes bytes(const std::string &s) { return Bytes(s.begin(), s.end()); }

class FpgaTest : public BoardTest {
protected:
    static constexpr const char *kSpi = "/dev/spidev0.0"; // the default INI's spi_fpga
    static constexpr const char *kFpgaSpi = "/dev/fpga_spi";
    static constexpr uint32_t kWindow = 0x2000000;

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
    void load()
    {
        PRODUCT_NUM = 0;
        PZ_FPGA_LOADER_STATUS = 0;
        ASSERT_EQ(parseConfigInfo(), 0);
        board().clear_log();
        board().clear_commands();
        fpga().clear_record();
    }

    sim::FpgaModel &fpga()
    {
        model_ = sim::fpga_model(board());
        EXPECT_TRUE(model_) << "the board has no FPGA";
        return *model_;
    }
    // The FPGA's knobs as "KEY=VALUE" lines; every other one back to its initial value.
    void knobs(const std::string &text)
    {
        std::vector<std::pair<std::string, std::string>> settings;
        for (const auto &k : sim::fpga_knobs())
            settings.emplace_back("fpga." + k.key, "");
        std::istringstream in(text);
        std::string line;
        while (std::getline(in, line))
            if (const auto eq = line.find('='); eq != std::string::npos)
                settings.emplace_back("fpga." + line.substr(0, eq), line.substr(eq + 1));
        ASSERT_EQ(board().set_knobs(settings), 0) << text;
    }

    std::vector<std::string> bi_log() { return log_of("vexa_system_bi_fpga"); }
    std::vector<std::string> fw_log() { return log_of("vexa_system_fw_update"); }
    std::vector<std::string> errors()
    {
        std::vector<std::string> out;
        for (auto &record : board().log())
            if (record.priority == 6)
                out.push_back(record.line());
        return out;
    }

    // What went to one SPI node, in order; kind 'w', 'r' or 'x' (0: any).
    std::vector<Bytes> sent(const std::string &node, char kind = 0)
    {
        std::vector<Bytes> out;
        for (auto &t : fpga().transfers())
            if (t.node == node && (kind == 0 || t.kind == kind))
                out.push_back(t.bytes);
        return out;
    }
    // The register writes (02 packets) to "/dev/fpga_spi": address and size.
    std::vector<std::pair<uint32_t, size_t>> packets()
    {
        std::vector<std::pair<uint32_t, size_t>> out;
        for (auto &p : sent(kFpgaSpi, 'w'))
            if (p.size() >= 6 && p[0] == 0x02)
                out.emplace_back(uint32_t(p[1]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 8 | p[4],
                                 p.size());
        return out;
    }

    // Board time passed while fn ran, in ms.
    template <typename Fn> double elapsed_ms(Fn fn)
    {
        const uint64_t start = board().now_ns();
        fn();
        return double(board().now_ns() - start) / 1e6;
    }

    std::vector<uint8_t> tag_of(int version)
    {
        const std::string tags = sim::default_fpga_tags(version);
        const std::string digits = tags.substr(0, 8) + tags.substr(9);
        std::vector<uint8_t> tag;
        for (size_t i = 0; i < 14; i += 2)
            tag.push_back(uint8_t((digits[i] - '0') << 4 | (digits[i + 1] - '0')));
        return tag;
    }
    std::vector<uint8_t> running_tag()
    {
        auto t = fpga().tag();
        return std::vector<uint8_t>(t.begin(), t.end());
    }

private:
    std::shared_ptr<sim::FpgaModel> model_;
};

} // namespace vexa::test

#endif
