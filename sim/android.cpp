// The Android log and system properties on the virtual board. Log records go
// to the journal ROOT/.board/log ("SEC.NSEC<TAB>PID<TAB>TID<TAB>PRIORITY<TAB>
// TAG<TAB>TEXT", tag and text escaped); properties to the journal
// ROOT/.board/properties. With VEXA_LOG_STDERR set, records are also printed
// on standard error as "P/TAG: TEXT".
#include "platform/android.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "sim/state.h"

using vexa::sim::Board;

extern "C" int __android_log_print(int prio, const char *tag, const char *fmt, ...)
{
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

    const int saved_errno = errno; // logging never changes errno
    const std::string safe_tag = tag ? tag : "";
    if (std::getenv("VEXA_LOG_STDERR"))
        std::fprintf(stderr, "%s\n", vexa::sim::LogRecord{prio, safe_tag, text}.line().c_str());
    // The process and thread ids, asked once per thread (again after a fork).
    static thread_local pid_t pid = 0;
    static thread_local long tid = 0;
    if (pid != ::getpid()) {
        pid = ::getpid();
        tid = static_cast<long>(::syscall(SYS_gettid));
    }
    if (auto state = vexa::sim::attached()) {
        struct timespec now;
        ::clock_gettime(CLOCK_REALTIME, &now);
        char head[96];
        std::snprintf(head, sizeof head, "%lld.%09ld\t%d\t%ld\t%d\t", static_cast<long long>(now.tv_sec),
                      now.tv_nsec, static_cast<int>(pid), tid, prio);
        state->log_journal->append(head + vexa::sim::escape_line(safe_tag) + "\t" +
                                   vexa::sim::escape_line(text));
    }
    errno = saved_errno;
    return n;
}

extern "C" int property_get(const char *key, char *value, const char *default_value)
{
    std::string found;
    if (auto state = vexa::sim::attached(); state && key) {
        long fault_result;
        if (vexa::sim::fault_fires(*state, "property_get", key, &fault_result))
            found.clear();
        else
            found = Board::current().property(key);
    }
    if (found.empty() && default_value)
        found = default_value;
    const size_t len = std::min(found.size(), static_cast<size_t>(PROPERTY_VALUE_MAX - 1));
    std::memcpy(value, found.data(), len);
    value[len] = '\0';
    return static_cast<int>(len);
}

extern "C" int property_set(const char *key, const char *value)
{
    auto state = vexa::sim::attached();
    if (!state || !key)
        return -1;
    long fault_result;
    if (vexa::sim::fault_fires(*state, "property_set", key, &fault_result))
        return static_cast<int>(fault_result);
    if (std::strlen(value ? value : "") >= PROPERTY_VALUE_MAX)
        return -1;
    Board::current().set_property(key, value ? value : "");
    return 0;
}
