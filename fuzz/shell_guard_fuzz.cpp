// Caller text on its way into a shell command: what the guard passes holds
// no byte the shell treats specially, and a path it passes is absolute.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/shell.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    const char *c = text.c_str(); // up to the first NUL, as a caller's C string
    const bool safe = vexa::shell_word_safe(c);
    if (safe) {
        for (const char *p = c; *p; ++p) {
            const unsigned char b = static_cast<unsigned char>(*p);
            if (b < 0x80 && !std::isalnum(b) && std::strchr("_-./,:=+@%", b) == nullptr)
                std::abort();
            if (b == 0xC0 || b == 0xC1 || b >= 0xF5)
                std::abort(); // never part of well-formed UTF-8
        }
    }
    if (vexa::shell_path_refusal(c) == nullptr && (!safe || c[0] != '/'))
        std::abort();
    return 0;
}
