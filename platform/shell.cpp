#include "platform/shell.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/log.h"

namespace vexa {

namespace {

// The length of the well-formed UTF-8 sequence of a character above U+007F
// that starts at p, or 0: no overlong forms, no surrogates, nothing above
// U+10FFFF.
size_t utf8_sequence(const unsigned char *p)
{
    auto in = [](unsigned char c, unsigned char lo, unsigned char hi) { return c >= lo && c <= hi; };
    const unsigned char c = p[0];
    if (in(c, 0xC2, 0xDF))
        return in(p[1], 0x80, 0xBF) ? 2 : 0;
    if (in(c, 0xE0, 0xEF)) {
        const unsigned char lo = c == 0xE0 ? 0xA0 : 0x80, hi = c == 0xED ? 0x9F : 0xBF;
        return in(p[1], lo, hi) && in(p[2], 0x80, 0xBF) ? 3 : 0;
    }
    if (in(c, 0xF0, 0xF4)) {
        const unsigned char lo = c == 0xF0 ? 0x90 : 0x80, hi = c == 0xF4 ? 0x8F : 0xBF;
        return in(p[1], lo, hi) && in(p[2], 0x80, 0xBF) && in(p[3], 0x80, 0xBF) ? 4 : 0;
    }
    return 0;
}

// The first byte of text that the shell would not take literally inside one
// word, or null when there is none.
const char *first_unsafe(const char *text)
{
    for (const char *p = text; *p;) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c >= 0x80) {
            // A character beyond ASCII is never special to the shell; a
            // byte that is not part of one is refused.
            const size_t length = utf8_sequence(reinterpret_cast<const unsigned char *>(p));
            if (length == 0)
                return p;
            p += length;
            continue;
        }
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || std::strchr("_-./,:=+@%", c) != nullptr;
        if (!plain)
            return p;
        ++p;
    }
    return nullptr;
}

} // namespace

bool shell_word_safe(const char *text)
{
    return text != nullptr && *text != '\0' && first_unsafe(text) == nullptr;
}

const char *shell_path_refusal(const char *path)
{
    if (path == nullptr || *path == '\0')
        return "no path";
    if (*path == '-')
        return "it starts with '-'";
    if (*path != '/')
        return "not an absolute path";
    if (const char *unsafe = first_unsafe(path))
        return static_cast<unsigned char>(*unsafe) >= 0x80 ? "it holds bytes that are not UTF-8"
                                                             : "it holds shell metacharacters";
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

bool shell_not_option(const char *tag, const char *func, const char *arg)
{
    if (arg != nullptr && arg[0] == '-') {
        VEXA_LOGE(tag, "%s: refusing option-like argument \"%s\"\n", func, arg);
        return false;
    }
    return true;
}

} // namespace vexa
