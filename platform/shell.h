// Guard for text that is pasted into a shell command.
#ifndef VEXA_PLATFORM_SHELL_H
#define VEXA_PLATFORM_SHELL_H

#include <initializer_list>

namespace vexa {

// True when text holds only characters that the shell takes literally inside
// one word: letters, digits and "_-./,:=+@%". Null or empty text is not safe.
bool shell_word_safe(const char *text);

// Checks every argument with shell_word_safe. On the first unsafe one logs
// ERROR "<func>: refusing shell metacharacters in \"<arg>\"" under tag and
// returns false; the caller then runs nothing and returns -1.
bool shell_args_safe(const char *tag, const char *func,
                     std::initializer_list<const char *> args);

// For a whole command taken from configuration (a product INI's PHY state
// command): true when it is words that each pass shell_word_safe, one blank
// apart. Otherwise logs ERROR "<func>: refusing shell metacharacters in
// \"<command>\"" under tag; the caller then runs nothing and returns -1.
bool shell_command_safe(const char *tag, const char *func, const char *command);

// For a caller's word that becomes an argument: false, after ERROR
// "<func>: refusing option-like argument \"<arg>\"", when it starts with '-'.
bool shell_not_option(const char *tag, const char *func, const char *arg);

// For paths handed to rm, cp, chmod, tar and the like: true when each is a
// plain absolute path whose characters pass shell_word_safe, with no ".."
// component, that does not name "/" itself ("/", "//", "/."). Otherwise logs
// ERROR under tag, "<func>: refusing shell metacharacters in \"<path>\"" or
// "<func>: refusing path \"<path>\": not a plain absolute path below /", and
// returns false; the caller then runs nothing and returns -1.
bool shell_paths_safe(const char *tag, const char *func,
                      std::initializer_list<const char *> paths);

} // namespace vexa

#endif
