// The self-test's item list ("1-2-12"): a pure function, so that it can be
// tested and fuzzed without a board.
#ifndef VEXA_SELFTEST_TEST_ITEMS_H
#define VEXA_SELFTEST_TEST_ITEMS_H

#include <cstddef>
#include <vector>

namespace vexa::selftest {

// The most numbers an item list holds; later ones are ignored.
constexpr size_t kMaxItems = 64;
// The item list's text is cut to this many characters first.
constexpr size_t kItemsText = 63;

// The numbers of an item list split at '-' (empty pieces are skipped, each
// piece is read as atoi reads it).
std::vector<long> parse_item_list(const char *text);

} // namespace vexa::selftest

#endif
