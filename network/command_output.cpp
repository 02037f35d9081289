#include "network/command_output.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vexa::net {

std::optional<unsigned> phy_register_value(const char *line)
{
    unsigned value = 0;
    if (line && std::sscanf(line, "read phy addr: 0x1d  reg: 0x1f04   value : 0x%x", &value) == 1)
        return value;
    return std::nullopt;
}

bool isolation_rule(const char *line)
{
    return line && std::strstr(line, "DROP") && std::strstr(line, "all") &&
           std::strstr(line, "192.168.41.0/24");
}

std::optional<unsigned long long> link_word(const char *text)
{
    if (!text || *text == '\0' || std::strlen(text) > 20)
        return std::nullopt;
    for (const char *p = text; *p; ++p)
        if (*p < '0' || *p > '9')
            return std::nullopt;
    errno = 0;
    char *end = nullptr;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (errno == ERANGE || *end != '\0')
        return std::nullopt;
    return value;
}

} // namespace vexa::net
