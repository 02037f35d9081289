// The libarchive calls of the board's tar, loaded on first use: the board's
// library does not link libarchive (and the libraries it brings), so a
// process that never packs an archive never loads them. Each call here is
// the library's own, found in libarchive when the first one is made; these
// names stay inside the board's library.
#include <archive.h>
#include <archive_entry.h>
#include <dlfcn.h>

#include <mutex>

namespace {

// The soname of Debian's libarchive13.
const char kLibarchive[] = "libarchive.so.13";

void *libarchive()
{
    static void *handle = nullptr;
    static std::once_flag once;
    std::call_once(once, [] { handle = ::dlopen(kLibarchive, RTLD_NOW | RTLD_LOCAL); });
    return handle;
}

template <typename Fn> Fn *find(const char *name)
{
    void *lib = libarchive();
    return lib ? reinterpret_cast<Fn *>(::dlsym(lib, name)) : nullptr;
}

} // namespace

// Each call: its return type, name, parameters, arguments, and what it
// returns when libarchive cannot be loaded.
#define VEXA_ARCHIVE_CALL(type, name, params, args, missing)                                       \
    extern "C" __attribute__((visibility("hidden"))) type name params                               \
    {                                                                                               \
        static auto *fn = find<decltype(::name)>(#name);                                            \
        return fn ? fn args : missing;                                                              \
    }

VEXA_ARCHIVE_CALL(struct archive *, archive_write_new, (void), (), nullptr)
VEXA_ARCHIVE_CALL(int, archive_write_add_filter_gzip, (struct archive * a), (a), ARCHIVE_FATAL)
VEXA_ARCHIVE_CALL(int, archive_write_set_format_gnutar, (struct archive * a), (a), ARCHIVE_FATAL)
VEXA_ARCHIVE_CALL(int, archive_write_open_fd, (struct archive * a, int fd), (a, fd), ARCHIVE_FATAL)
VEXA_ARCHIVE_CALL(int, archive_write_header, (struct archive * a, struct archive_entry *e), (a, e), ARCHIVE_FATAL)
VEXA_ARCHIVE_CALL(la_ssize_t, archive_write_data, (struct archive * a, const void *buf, size_t len), (a, buf, len),
                  -1)
VEXA_ARCHIVE_CALL(int, archive_write_close, (struct archive * a), (a), ARCHIVE_FATAL)
VEXA_ARCHIVE_CALL(int, archive_write_free, (struct archive * a), (a), ARCHIVE_FATAL)
VEXA_ARCHIVE_CALL(const char *, archive_error_string, (struct archive * a), (a), "libarchive is not installed")
VEXA_ARCHIVE_CALL(struct archive_entry *, archive_entry_new, (void), (), nullptr)
VEXA_ARCHIVE_CALL(void, archive_entry_free, (struct archive_entry * e), (e), void())
VEXA_ARCHIVE_CALL(void, archive_entry_copy_stat, (struct archive_entry * e, const struct stat *st), (e, st), void())
VEXA_ARCHIVE_CALL(void, archive_entry_set_pathname, (struct archive_entry * e, const char *name), (e, name), void())
VEXA_ARCHIVE_CALL(void, archive_entry_set_symlink, (struct archive_entry * e, const char *target), (e, target),
                  void())
