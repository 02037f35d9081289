// Variations of the default board's product INI text for tests.
#ifndef VEXA_TESTS_INI_TEXT_H
#define VEXA_TESTS_INI_TEXT_H

#include <optional>
#include <sstream>
#include <string>

#include "sim/default_ini.h"

namespace vexa::test {

// The default INI with the line of `key` set to `value`, or removed when
// value is nullopt.
inline std::string ini_with(const std::string &key, std::optional<std::string> value,
                            std::string text = sim::default_product_ini())
{
    std::istringstream in(text);
    std::string out, line;
    while (std::getline(in, line)) {
        const auto eq = line.find(" = ");
        if (eq != std::string::npos && line.compare(0, eq, key) == 0 && eq == key.size()) {
            if (value)
                out += key + " = " + *value + "\n";
            continue;
        }
        out += line + "\n";
    }
    return out;
}

} // namespace vexa::test

#endif
