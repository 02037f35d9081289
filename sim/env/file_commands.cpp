// The shell commands the storage functions run, carried out on the board's
// files: rm, mkdir, cp, chmod, chown. Absolute paths map below the board's
// root and can never leave it; words with *, ? or [ are expanded like the
// shell's globs (no match: the word itself). Nothing runs through a shell.
#include <glob.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "sim/board.h"

namespace fs = std::filesystem;
using vexa::sim::CommandResult;

namespace {

constexpr int kFailed = 1 << 8; // exit status 1, as system() reports it

struct Paths {
    std::string root;

    // Board path -> host path, kept below the root ("/a/../.." is "/").
    std::string host(const std::string &word) const
    {
        if (word.empty() || word[0] != '/')
            return word;
        std::string normal = fs::path(word).lexically_normal().string();
        // Keep a trailing "/." : "cp -r src/. dst" copies the contents of src.
        if (word.size() >= 2 && word.compare(word.size() - 2, 2, "/.") == 0 && normal.back() != '.')
            normal += normal.back() == '/' ? "." : "/.";
        return root + normal;
    }

    std::vector<std::string> expand(const std::string &word) const
    {
        const std::string path = host(word);
        if (word.find_first_of("*?[") == std::string::npos)
            return {path};
        glob_t found{};
        std::vector<std::string> out;
        if (::glob(path.c_str(), 0, nullptr, &found) == 0) {
            for (size_t i = 0; i < found.gl_pathc; ++i)
                out.emplace_back(found.gl_pathv[i]);
        } else {
            out.push_back(path);
        }
        ::globfree(&found);
        return out;
    }

    // The root itself and the board's own state are never touched.
    bool protected_path(const std::string &path) const
    {
        const std::string normal = fs::path(path).lexically_normal().string();
        return normal == root || normal == root + "/" || normal.rfind(root + "/.board", 0) == 0;
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
            std::error_code ec;
            const auto st = fs::symlink_status(path, ec);
            if (!fs::exists(st)) {
                if (!force)
                    result = fail("rm: cannot remove '" + word + "': No such file or directory");
                continue;
            }
            if (p.protected_path(path)) {
                result = fail("rm: refusing to remove '" + word + "'");
                continue;
            }
            if (fs::is_directory(st) && !recursive) {
                result = fail("rm: cannot remove '" + word + "': Is a directory");
                continue;
            }
            fs::remove_all(path, ec);
            if (ec)
                result = fail("rm: cannot remove '" + word + "': " + ec.message());
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
        const std::string path = p.host(word);
        std::error_code ec;
        if (fs::exists(path, ec)) {
            if (!parents || !fs::is_directory(path, ec))
                result = fail("mkdir: cannot create directory '" + word + "': File exists");
            continue;
        }
        if (parents)
            fs::create_directories(path, ec);
        else
            fs::create_directory(path, ec);
        if (ec)
            result = fail("mkdir: cannot create directory '" + word + "': " + ec.message());
    }
    return result;
}

CommandResult cp(const Paths &p, const std::vector<std::string> &argv)
{
    const Args a = split(argv);
    if (a.words.size() < 2)
        return fail("cp: missing destination file operand");
    const bool recursive = has(a.flags, "rRa");
    const std::string dest = p.host(a.words.back());
    CommandResult result;
    std::error_code ec;
    for (size_t i = 0; i + 1 < a.words.size(); ++i) {
        for (const auto &src : p.expand(a.words[i])) {
            if (!fs::exists(src, ec)) {
                result = fail("cp: cannot stat '" + a.words[i] + "': No such file or directory");
                continue;
            }
            const std::string name = fs::path(src).filename().string();
            if (fs::is_directory(src, ec)) {
                if (!recursive) {
                    result = fail("cp: -r not specified; omitting directory '" + a.words[i] + "'");
                    continue;
                }
                std::string target = dest;
                if (name != "." && fs::is_directory(dest, ec))
                    target = (fs::path(dest) / name).string();
                fs::create_directories(target, ec);
                fs::copy(src, target,
                         fs::copy_options::recursive | fs::copy_options::overwrite_existing |
                             fs::copy_options::copy_symlinks,
                         ec);
            } else {
                const std::string target =
                    fs::is_directory(dest, ec) ? (fs::path(dest) / name).string() : dest;
                fs::copy_file(src, target, fs::copy_options::overwrite_existing, ec);
            }
            if (ec)
                result = fail("cp: cannot copy '" + a.words[i] + "': " + ec.message());
        }
    }
    return result;
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
            std::error_code ec;
            if (!fs::exists(path, ec)) {
                result = fail("chmod: cannot access '" + a.words[i] + "': No such file or directory");
                continue;
            }
            if (!octal)
                continue; // symbolic modes are accepted and left alone
            const auto perms = static_cast<fs::perms>(mode & 07777);
            fs::permissions(path, perms, ec);
            if (has(a.flags, "R") && fs::is_directory(path, ec)) {
                for (const auto &entry : fs::recursive_directory_iterator(path, ec))
                    fs::permissions(entry.path(), perms, ec);
            }
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
            std::error_code ec;
            if (!fs::exists(path, ec))
                result = fail("chown: cannot access '" + a.words[i] + "': No such file or directory");
        }
    }
    return result;
}

} // namespace

VEXA_SIM_ATTACHER(file_commands)
{
    const Paths paths{board.root()};
    using Fn = CommandResult (*)(const Paths &, const std::vector<std::string> &);
    const std::pair<const char *, Fn> commands[] = {
        {"rm", rm}, {"mkdir", mkdir}, {"cp", cp}, {"chmod", chmod}, {"chown", chown}};
    for (const auto &[program, fn] : commands) {
        board.on_command(program, [paths, fn = fn](const std::vector<std::string> &argv,
                                                   const std::string &) { return fn(paths, argv); });
    }
}
