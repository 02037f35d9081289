// Lines of "iptables -nL FORWARD --line-number": only a line naming DROP,
// all and the access point's subnet is the isolation rule.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "network/command_output.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string line(reinterpret_cast<const char *>(data), size);
    if (vexa::net::isolation_rule(line.c_str()) &&
        (line.find("DROP") == std::string::npos || line.find("192.168.41.0/24") == std::string::npos))
        std::abort();
    return 0;
}
