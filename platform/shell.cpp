#include "platform/shell.h"

#include <cstring>

#include "platform/log.h"

namespace vexa {

bool shell_word_safe(const char *text)
{
    if (text == nullptr || *text == '\0')
        return false;
    for (const char *p = text; *p; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || std::strchr("_-./,:=+@%", c) != nullptr;
        if (!plain)
            return false;
    }
    return true;
}

bool shell_args_safe(const char *tag, const char *func, std::initializer_list<const char *> args)
{
    for (const char *arg : args) {
        if (!shell_word_safe(arg)) {
            VEXA_LOGE(tag, "%s: refusing shell metacharacters in \"%s\"\n", func, arg ? arg : "(null)");
            return false;
        }
    }
    return true;
}

} // namespace vexa
