// Guards for caller text that is pasted into a shell command.
//
// Every caller text the library puts into a command goes through one of the
// checks here first, and every command is formatted with shell_format(): a
// text that fails a check, or a command that does not fit its buffer, is
// refused with an error line and nothing is run (the caller returns -1).
// A whole command that the caller hands over to be run (a PHY state command
// of the product INI) is the caller's own and runs as it is given.
#ifndef VEXA_PLATFORM_SHELL_H
#define VEXA_PLATFORM_SHELL_H

#include <cstddef>
#include <initializer_list>

namespace vexa {

// True when text holds only characters that the shell takes literally inside
// one word: ASCII letters, digits and "_-./,:=+@%", and any character beyond
// ASCII written as well-formed UTF-8 ("/data/été"). A byte that is not part of
// a well-formed UTF-8 sequence is refused. Null or empty text is not safe.
bool shell_word_safe(const char *text);

// Why a path may not be handed to a command that removes, copies, changes or
// formats what it names (rm, cp, chmod, chown, mkfs.ext4, badblocks, tar);
// null when it may: a shell-word-safe absolute path without a ".." component
// that does not name "/" itself (however written: "//", "/.", "/./.").
const char *shell_path_refusal(const char *path);

// Checks every path with shell_path_refusal. On the first refused one logs
// ERROR "<func>: refusing path \"<path>\": <reason>" under tag and returns
// false; the caller then runs nothing and returns -1.
bool shell_paths_safe(const char *tag, const char *func,
                      std::initializer_list<const char *> paths);

// Formats a command into buf (cap bytes). When it does not fit, logs ERROR
// "<func>: command does not fit in <cap> bytes: <format>" under tag and
// returns false: a command cut short could act on another path, so it must
// not run at all.
bool shell_format(char *buf, size_t cap, const char *tag, const char *func, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));

// Checks every argument with shell_word_safe. On the first unsafe one logs
// ERROR "<func>: refusing shell metacharacters in \"<arg>\"" under tag and
// returns false; the caller then runs nothing and returns -1.
bool shell_args_safe(const char *tag, const char *func,
                     std::initializer_list<const char *> args);

// For a caller's word that becomes an argument: false, after ERROR
// "<func>: refusing option-like argument \"<arg>\"", when it starts with '-'.
bool shell_not_option(const char *tag, const char *func, const char *arg);

} // namespace vexa

#endif
