// Splits a fuzz input into the texts a target hands to several readers.
#ifndef VEXA_FUZZ_NUL_PARTS_H
#define VEXA_FUZZ_NUL_PARTS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vexa::fuzz {

// The input's first `count` NUL-separated parts (missing ones empty). With
// `rest_in_last`, the last part takes everything after its NUL, NULs
// included; otherwise what follows the count-th NUL is dropped.
inline std::vector<std::string> nul_parts(const uint8_t *data, size_t size, size_t count,
                                          bool rest_in_last = false)
{
    std::vector<std::string> parts(count);
    size_t part = 0;
    for (size_t i = 0; i < size && part < count; ++i) {
        if (data[i] == '\0' && !(rest_in_last && part + 1 == count))
            ++part;
        else
            parts[part] += static_cast<char>(data[i]);
    }
    return parts;
}

} // namespace vexa::fuzz

#endif
