// A fresh default board with the product record loaded and the integer CVT
// engine back at its load-time state.
#ifndef VEXA_TESTS_DISPLAY_FIXTURE_H
#define VEXA_TESTS_DISPLAY_FIXTURE_H

#include <string>

#include "support/board_fixture.h"
#include "vexasdk/display.h"
#include "vexasdk/product_config.h"

namespace vexa::test {

class DisplayTest : public ProductTest {
protected:
    void SetUp() override
    {
        reset_engine();
        ProductTest::SetUp();
    }

    // A fresh board of another product.
    void use_product(const std::string &module_id)
    {
        rebuild(sim::Board::Builder().module_id(module_id));
        load();
    }

    static void reset_engine()
    {
        VRate = 60000;
        ActualVRate = PClock = ActualPClock = 0;
        Fields = 1;
        Interlaced = 0;
        Type = 0;
    }

    std::vector<std::string> resolution_log() { return log_of("vexa_system_bi_resolution"); }
};

} // namespace vexa::test

#endif
