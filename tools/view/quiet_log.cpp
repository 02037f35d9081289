// The log call of this program: the library's calls reach this definition
// before the board's (the program's own symbols come first), and it hands
// every record that is not dropped on to the board's.
#include "tools/view/quiet_log.h"

#include <dlfcn.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace vexa::view {
namespace {

thread_local bool t_quiet = false;

} // namespace

QuietLog::QuietLog() : was_(t_quiet) { t_quiet = true; }
QuietLog::~QuietLog() { t_quiet = was_; }

} // namespace vexa::view

extern "C" __attribute__((visibility("default"))) int __android_log_print(int prio, const char *tag,
                                                                          const char *fmt, ...)
{
    const int saved_errno = errno;
    va_list ap;
    va_start(ap, fmt);
    va_list copy;
    va_copy(copy, ap);
    const int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0)
        std::vsnprintf(&text[0], text.size() + 1, fmt, ap);
    va_end(ap);
    errno = saved_errno;
    if (vexa::view::t_quiet)
        return n;
    using Real = int (*)(int, const char *, const char *, ...);
    static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "__android_log_print"));
    return real ? real(prio, tag, "%s", text.c_str()) : n;
}
