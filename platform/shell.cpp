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

bool shell_command_safe(const char *tag, const char *func, const char *command)
{
    bool safe = command != nullptr && *command != '\0';
    for (const char *p = command; safe && *p;) {
        const char *end = std::strchr(p, ' ');
        const size_t len = end ? static_cast<size_t>(end - p) : std::strlen(p);
        char word[256];
        if (len == 0 || len >= sizeof word) {
            safe = false;
            break;
        }
        std::memcpy(word, p, len);
        word[len] = '\0';
        safe = shell_word_safe(word);
        p = end ? end + 1 : p + len;
        if (end && *p == '\0')
            safe = false; // a trailing blank
    }
    if (!safe)
        VEXA_LOGE(tag, "%s: refusing shell metacharacters in \"%s\"\n", func,
                  command ? command : "(null)");
    return safe;
}

bool shell_not_option(const char *tag, const char *func, const char *arg)
{
    if (arg != nullptr && arg[0] == '-') {
        VEXA_LOGE(tag, "%s: refusing option-like argument \"%s\"\n", func, arg);
        return false;
    }
    return true;
}

namespace {

// Absolute, with at least one component below "/" and none that is "..".
bool plain_absolute_path(const char *path)
{
    if (path[0] != '/')
        return false;
    bool below_root = false;
    for (const char *p = path; *p;) {
        while (*p == '/')
            ++p;
        const char *end = std::strchr(p, '/');
        const size_t len = end ? static_cast<size_t>(end - p) : std::strlen(p);
        if (len == 2 && p[0] == '.' && p[1] == '.')
            return false;
        if (len > 0 && !(len == 1 && p[0] == '.'))
            below_root = true;
        p += len;
    }
    return below_root;
}

} // namespace

bool shell_paths_safe(const char *tag, const char *func, std::initializer_list<const char *> paths)
{
    for (const char *path : paths) {
        if (!shell_args_safe(tag, func, {path}))
            return false;
        if (!plain_absolute_path(path)) {
            VEXA_LOGE(tag, "%s: refusing path \"%s\": not a plain absolute path below /\n", func, path);
            return false;
        }
    }
    return true;
}

} // namespace vexa
