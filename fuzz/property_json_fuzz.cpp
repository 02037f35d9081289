// The rescue copy's settings file: arbitrary bytes read with
// bi_base_open_json, parsed and applied with bi_base_analyze_json_pro. The
// text comes back whole and terminated, and only top-level strings become
// properties.
#include <cJSON.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "sim/board.h"
#include "vexasdk/product_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static vexa::sim::Board board = vexa::sim::Board::Builder().build();
    const char path[] = "/Reserve0/RescueParty/property.json";
    board.write_file(path, std::string(reinterpret_cast<const char *>(data), size));
    board.write_file("/.board/properties", "");

    std::unique_ptr<char, decltype(&std::free)> text(bi_base_open_json(path), std::free);
    if (size == 0) {
        if (text)
            std::abort();
        return 0;
    }
    if (!text || std::memcmp(text.get(), data, size) != 0 || text.get()[size] != '\0')
        std::abort();
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> tree(cJSON_Parse(text.get()), cJSON_Delete);
    if (tree && bi_base_analyze_json_pro(tree.get()) != cJSON_GetArraySize(tree.get()))
        std::abort();
    board.clear_log();
    return 0;
}
