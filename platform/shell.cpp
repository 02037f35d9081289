#include "platform/shell.h"

#include <cstdarg>
#include <cstdio>
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

const char *shell_path_refusal(const char *path)
{
    if (path == nullptr || *path == '\0')
        return "no path";
    if (*path == '-')
        return "it starts with '-'";
    if (*path != '/')
        return "not an absolute path";
    if (!shell_word_safe(path))
        return "it holds shell metacharacters";
    bool names_something = false;
    for (const char *p = path; *p;) {
        while (*p == '/')
            ++p;
        const size_t len = std::strcspn(p, "/");
        if (len == 2 && p[0] == '.' && p[1] == '.')
            return "it has a \"..\" component";
        if (len > 0 && !(len == 1 && p[0] == '.'))
            names_something = true;
        p += len;
    }
    return names_something ? nullptr : "it names \"/\"";
}

bool shell_paths_safe(const char *tag, const char *func, std::initializer_list<const char *> paths)
{
    for (const char *path : paths) {
        if (const char *why = shell_path_refusal(path)) {
            VEXA_LOGE(tag, "%s: refusing path \"%s\": %s\n", func, path ? path : "(null)", why);
            return false;
        }
    }
    return true;
}

bool shell_format(char *buf, size_t cap, const char *tag, const char *func, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int n = std::vsnprintf(buf, cap, fmt, ap);
    va_end(ap);
    if (n < 0 || static_cast<size_t>(n) >= cap) {
        if (cap > 0)
            buf[0] = '\0';
        VEXA_LOGE(tag, "%s: command does not fit in %zu bytes: %s\n", func, cap, fmt);
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

} // namespace vexa
