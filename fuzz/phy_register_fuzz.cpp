// Lines of a PHY state command's output: a value is found only in the
// register line, and the link-status word only in plain decimal text.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "network/command_output.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The parsers see a C string: what follows a NUL is not part of it.
    const std::string line(reinterpret_cast<const char *>(data),
                           strnlen(reinterpret_cast<const char *>(data), size));
    if (vexa::net::phy_register_value(line.c_str()) &&
        std::strncmp(line.c_str(), "read phy addr: 0x1d", 19) != 0)
        std::abort();
    if (const auto word = vexa::net::link_word(line.c_str())) {
        if (std::to_string(*word).size() > 20 || line.empty() ||
            line.find_first_not_of("0123456789") != std::string::npos)
            std::abort();
    }
    return 0;
}
