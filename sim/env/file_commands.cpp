// The shell commands the storage functions run, carried out on the board's
// files: rm, mkdir, cp, chmod, chown. Every path is resolved beneath the
// board's root (sim/folder.h): "/a/../.." is "/", and a link that leads out
// of the folder is refused, never followed. Words with *, ? or [ are
// expanded like the shell's globs, one name at a time inside the folder (no
// match: the word itself). Nothing runs through a shell.
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sim/board.h"

using vexa::sim::CommandResult;
using vexa::sim::Descriptor;
using vexa::sim::Folder;

namespace {

constexpr int kFailed = 1 << 8; // exit status 1, as system() reports it

std::string error_text(int error) { return std::strerror(error); }

std::vector<std::string> names_of(const std::string &path)
{
    std::vector<std::string> names;
    size_t at = 0;
    while (at <= path.size()) {
        size_t end = path.find('/', at);
        if (end == std::string::npos)
            end = path.size();
        if (end > at)
            names.push_back(path.substr(at, end - at));
        at = end + 1;
    }
    return names;
}

std::string join(const std::string &dir, const std::string &name)
{
    return dir == "/" ? "/" + name : dir + "/" + name;
}

struct Paths {
    Folder folder;

    // A word as a board path; a relative word is taken from "/". A trailing
    // "/." stays: "cp -r src/. dst" copies the contents of src.
    static std::string board_path(const std::string &word)
    {
        std::string path = Folder::normal(word);
        if (word.size() >= 2 && word.compare(word.size() - 2, 2, "/.") == 0)
            path = join(path, ".");
        return path;
    }

    std::vector<std::string> expand(const std::string &word) const
    {
        if (word.find_first_of("*?[") == std::string::npos)
            return {board_path(word)};
        std::vector<std::string> found = {"/"};
        for (const auto &name : names_of(Folder::normal(word))) {
            std::vector<std::string> next;
            for (const auto &dir : found) {
                if (name.find_first_of("*?[") == std::string::npos) {
                    if (folder.exists(join(dir, name)))
                        next.push_back(join(dir, name));
                    continue;
                }
                for (const auto &entry : folder.list(dir).value_or(std::vector<std::string>())) {
                    if ((entry[0] != '.' || name[0] == '.') &&
                        ::fnmatch(name.c_str(), entry.c_str(), FNM_PERIOD) == 0)
                        next.push_back(join(dir, entry));
                }
            }
            found = std::move(next);
        }
        if (found.empty())
            return {board_path(word)};
        return found;
    }

    // The root itself and the board's own state are never touched.
    static bool protected_path(const std::string &path)
    {
        const std::string normal = Folder::normal(path);
        return normal == "/" || normal == "/.board" || normal.rfind("/.board/", 0) == 0;
    }
};

struct Args {
    std::string flags;
    std::vector<std::string> words;
};

Args split(const std::vector<std::string> &argv)
{
    Args a;
    for (size_t i = 1; i < argv.size(); ++i) {
        if (argv[i].size() > 1 && argv[i][0] == '-')
            a.flags += argv[i].substr(1);
        else
            a.words.push_back(argv[i]);
    }
    return a;
}

bool has(const std::string &flags, const char *any)
{
    return flags.find_first_of(any) != std::string::npos;
}

CommandResult fail(const std::string &message)
{
    return {kFailed, message + "\n"};
}

CommandResult rm(const Paths &p, const std::vector<std::string> &argv)
{
    const Args a = split(argv);
    const bool recursive = has(a.flags, "rR");
    const bool force = has(a.flags, "f");
    CommandResult result;
    for (const auto &word : a.words) {
        for (const auto &path : p.expand(word)) {
            struct stat st;
            if (p.folder.stat(path, &st, false) != 0) {
                if (!force || errno != ENOENT)
                    result = fail("rm: cannot remove '" + word + "': " + error_text(errno));
                continue;
            }
            if (Paths::protected_path(path)) {
                result = fail("rm: refusing to remove '" + word + "'");
                continue;
            }
            if (S_ISDIR(st.st_mode) && !recursive) {
                result = fail("rm: cannot remove '" + word + "': Is a directory");
                continue;
            }
            if (p.folder.remove_all(path) != 0)
                result = fail("rm: cannot remove '" + word + "': " + error_text(errno));
        }
    }
    return result;
}

CommandResult mkdir(const Paths &p, const std::vector<std::string> &argv)
{
    const Args a = split(argv);
    const bool parents = has(a.flags, "p");
    CommandResult result;
    for (const auto &word : a.words) {
        const std::string path = Paths::board_path(word);
        if (Paths::protected_path(path)) {
            result = fail("mkdir: cannot create directory '" + word + "': Permission denied");
            continue;
        }
        const int made = parents ? p.folder.make_dirs(path) : p.folder.mkdir(path);
        if (made != 0)
            result = fail("mkdir: cannot create directory '" + word + "': " + error_text(errno));
    }
    return result;
}

// Copies a regular file's bytes and mode over what stands at to.
bool copy_file(const Folder &folder, const std::string &from, const std::string &to)
{
    const Descriptor in(folder.open(from, O_RDONLY));
    struct stat st;
    if (!in || ::fstat(in.get(), &st) != 0)
        return false;
    const Descriptor out(folder.open(to, O_WRONLY | O_CREAT | O_TRUNC, st.st_mode & 07777));
    if (!out)
        return false;
    char buf[65536];
    for (;;) {
        const ssize_t n = ::read(in.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n == 0;
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = ::write(out.get(), buf + done, static_cast<size_t>(n - done));
            if (w < 0 && errno == EINTR)
                continue;
            if (w < 0)
                return false;
            done += w;
        }
    }
}

// cp -r of what a folder holds: folders are made, files copied, links copied
// as links (their text, never what they lead to).
bool copy_contents(const Folder &folder, const std::string &from, const std::string &to)
{
    bool ok = true;
    for (const auto &name : folder.list(from).value_or(std::vector<std::string>())) {
        const std::string src = join(from, name), dst = join(to, name);
        struct stat st;
        if (folder.stat(src, &st, false) != 0) {
            ok = false;
        } else if (S_ISLNK(st.st_mode)) {
            const auto text = folder.read_link(src);
            folder.remove(dst);
            ok = text && folder.symlink(*text, dst) == 0 && ok;
        } else if (S_ISDIR(st.st_mode)) {
            if (folder.mkdir(dst, st.st_mode & 07777) != 0 && !folder.is_directory(dst))
                ok = false;
            else
                ok = copy_contents(folder, src, dst) && ok;
        } else if (S_ISREG(st.st_mode)) {
            ok = copy_file(folder, src, dst) && ok;
        }
    }
    return ok;
}

CommandResult cp(const Paths &p, const std::vector<std::string> &argv)
{
    const Args a = split(argv);
    if (a.words.size() < 2)
        return fail("cp: missing destination file operand");
    const bool recursive = has(a.flags, "rRa");
    const std::string dest = Paths::board_path(a.words.back());
    if (Paths::protected_path(dest))
        return fail("cp: cannot create '" + a.words.back() + "': Permission denied");
    CommandResult result;
    for (size_t i = 0; i + 1 < a.words.size(); ++i) {
        for (const auto &src : p.expand(a.words[i])) {
            struct stat st;
            if (p.folder.stat(src, &st) != 0) {
                result = fail("cp: cannot stat '" + a.words[i] + "': " + error_text(errno));
                continue;
            }
            const std::string name = src.substr(src.rfind('/') + 1);
            bool ok;
            if (S_ISDIR(st.st_mode)) {
                if (!recursive) {
                    result = fail("cp: -r not specified; omitting directory '" + a.words[i] + "'");
                    continue;
                }
                const std::string target = name != "." && p.folder.is_directory(dest) ? join(dest, name) : dest;
                const std::string inside = Folder::normal(src) + "/";
                if ((Folder::normal(target) + "/").rfind(inside, 0) == 0) {
                    result = fail("cp: cannot copy a directory, '" + a.words[i] + "', into itself, '" +
                                  a.words.back() + "'");
                    continue;
                }
                ok = p.folder.make_dirs(target) == 0 && copy_contents(p.folder, src, target);
            } else {
                const std::string target = p.folder.is_directory(dest) ? join(dest, name) : dest;
                ok = copy_file(p.folder, src, target);
            }
            if (!ok)
                result = fail("cp: cannot copy '" + a.words[i] + "': " + error_text(errno));
        }
    }
    return result;
}

// chmod -R: every file and folder below, links passed over as chmod does.
void chmod_tree(const Folder &folder, const std::string &dir, mode_t mode)
{
    for (const auto &name : folder.list(dir).value_or(std::vector<std::string>())) {
        const std::string path = join(dir, name);
        struct stat st;
        if (folder.stat(path, &st, false) != 0 || S_ISLNK(st.st_mode))
            continue;
        folder.chmod(path, mode);
        if (S_ISDIR(st.st_mode))
            chmod_tree(folder, path, mode);
    }
}

CommandResult chmod(const Paths &p, const std::vector<std::string> &argv)
{
    const Args a = split(argv);
    if (a.words.size() < 2)
        return fail("chmod: missing operand");
    char *end = nullptr;
    const long mode = std::strtol(a.words[0].c_str(), &end, 8);
    const bool octal = end != nullptr && *end == '\0';
    CommandResult result;
    for (size_t i = 1; i < a.words.size(); ++i) {
        for (const auto &path : p.expand(a.words[i])) {
            struct stat st;
            if (p.folder.stat(path, &st) != 0) {
                result = fail("chmod: cannot access '" + a.words[i] + "': " + error_text(errno));
                continue;
            }
            if (!octal)
                continue; // symbolic modes are accepted and left alone
            if (Paths::protected_path(path)) {
                result = fail("chmod: changing permissions of '" + a.words[i] + "': Operation not permitted");
                continue;
            }
            p.folder.chmod(path, static_cast<mode_t>(mode & 07777));
            if (has(a.flags, "R") && S_ISDIR(st.st_mode))
                chmod_tree(p.folder, path, static_cast<mode_t>(mode & 07777));
        }
    }
    return result;
}

// Ownership cannot change on a host: the command checks its paths and succeeds.
CommandResult chown(const Paths &p, const std::vector<std::string> &argv)
{
    const Args a = split(argv);
    if (a.words.size() < 2)
        return fail("chown: missing operand");
    CommandResult result;
    for (size_t i = 1; i < a.words.size(); ++i) {
        for (const auto &path : p.expand(a.words[i])) {
            struct stat st;
            if (p.folder.stat(path, &st) != 0)
                result = fail("chown: cannot access '" + a.words[i] + "': " + error_text(errno));
        }
    }
    return result;
}

} // namespace

VEXA_SIM_ATTACHER(file_commands)
{
    const Paths paths{board.folder()};
    using Fn = CommandResult (*)(const Paths &, const std::vector<std::string> &);
    const std::pair<const char *, Fn> commands[] = {
        {"rm", rm}, {"mkdir", mkdir}, {"cp", cp}, {"chmod", chmod}, {"chown", chown}};
    for (const auto &[program, fn] : commands) {
        board.on_command(program, [paths, fn = fn](const std::vector<std::string> &argv,
                                                   const std::string &) { return fn(paths, argv); });
    }
}
