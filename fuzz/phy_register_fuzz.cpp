// Lines of a PHY state command's output: a value is found only in the
// register line, and the link-status word only in plain decimal text. The
// register line is matched as scanf matches its pattern: a blank in the
// pattern takes any run of white space, none included.
#include <cctype>
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
    std::string packed; // the line without its white space
    for (char c : line)
        if (!std::isspace(static_cast<unsigned char>(c)))
            packed += c;
    if (vexa::net::phy_register_value(line.c_str()) &&
        packed.rfind("readphyaddr:0x1dreg:0x1f04value:0x", 0) != 0)
        std::abort();
    if (const auto word = vexa::net::link_word(line.c_str())) {
        if (std::to_string(*word).size() > 20 || line.empty() ||
            line.find_first_not_of("0123456789") != std::string::npos)
            std::abort();
    }
    return 0;
}
