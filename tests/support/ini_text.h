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

// The value of key in the default INI (each key appears once there).
inline std::string ini_value(const std::string &key)
{
    const std::string ini = sim::default_product_ini();
    const std::string head = "\n" + key + " = ";
    const size_t at = ini.find(head) + head.size();
    return ini.substr(at, ini.find('\n', at) - at);
}

} // namespace vexa::test

#endif
