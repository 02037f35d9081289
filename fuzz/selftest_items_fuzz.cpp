// The self-test's item list: any text splits into at most 64 numbers, read
// from at most 63 characters.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "selftest/test_items.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    const auto items = vexa::selftest::parse_item_list(text.c_str());
    if (items.size() > vexa::selftest::kMaxItems || items.size() > vexa::selftest::kItemsText / 2 + 1)
        std::abort();
    return 0;
}
