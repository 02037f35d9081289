#include "selftest/test_items.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace vexa::selftest {

std::vector<long> parse_item_list(const char *text)
{
    std::vector<long> items;
    if (!text)
        return items;
    const std::string copy(text, strnlen(text, kItemsText));
    size_t at = 0;
    while (at < copy.size() && items.size() < kMaxItems) {
        size_t end = copy.find('-', at);
        if (end == std::string::npos)
            end = copy.size();
        if (end > at)
            items.push_back(std::atol(copy.substr(at, end - at).c_str()));
        at = end + 1;
    }
    return items;
}

} // namespace vexa::selftest
