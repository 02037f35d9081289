// The board's tar: "tar -zcf ARCHIVE PATH..." packs board files into a real
// tar archive (gzip-compressed with z) through libarchive, as GNU tar does:
// member names are board paths without their leading '/', directories are
// walked, the archive itself is not packed into itself. Flags come in one
// word with or without '-' ("-zcf", "zcf") or apart; f takes the rest of its
// word or the next one. Only creating is carried out; anything else fails
// with exit status 2, as do a missing path and an archive that cannot be
// written. Absolute paths map below the board's root and cannot leave it.
// libarchive is loaded when the first archive is written
// (archive_on_demand.cpp).
#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "sim/board.h"

namespace fs = std::filesystem;
using vexa::sim::CommandResult;

namespace {

constexpr int kFatal = 2 << 8; // exit status 2, as system() reports it

struct TarArgs {
    bool create = false;
    bool gzip = false;
    std::string file;
    std::vector<std::string> paths;
    std::string error;
};

// Applies a cluster of flag letters; f takes the rest of the word or the
// next word.
bool apply_flags(const std::string &flags, const std::vector<std::string> &argv, size_t *next,
                 TarArgs *args)
{
    for (size_t i = 0; i < flags.size(); ++i) {
        switch (flags[i]) {
        case 'c': args->create = true; break;
        case 'z': args->gzip = true; break;
        case 'v': break;
        case 'f':
            if (i + 1 < flags.size()) {
                args->file = flags.substr(i + 1);
            } else if (*next < argv.size()) {
                args->file = argv[(*next)++];
            } else {
                args->error = "tar: option requires an argument -- 'f'";
                return false;
            }
            return true;
        default:
            args->error = std::string("tar: unsupported option -- '") + flags[i] + "'";
            return false;
        }
    }
    return true;
}

TarArgs parse(const std::vector<std::string> &argv)
{
    TarArgs args;
    size_t next = 1;
    bool options = true;
    while (next < argv.size()) {
        const std::string word = argv[next++];
        if (options && word == "--") {
            options = false;
        } else if (options && word.size() > 1 && word[0] == '-' && word[1] != '-') {
            if (!apply_flags(word.substr(1), argv, &next, &args))
                return args;
        } else if (options && next == 2 && word.find_first_not_of("czvf") == std::string::npos) {
            // The old style: the first word is the flags without '-'.
            if (!apply_flags(word, argv, &next, &args))
                return args;
        } else if (options && word.rfind("--", 0) == 0) {
            args.error = "tar: unsupported option '" + word + "'";
            return args;
        } else {
            args.paths.push_back(word);
        }
    }
    if (!args.create)
        args.error = "tar: only creating an archive (-c) is carried out on the board";
    else if (args.file.empty() || args.file == "-")
        args.error = "tar: the board writes archives to files only (-f FILE)";
    else if (args.paths.empty())
        args.error = "tar: Cowardly refusing to create an empty archive";
    return args;
}

struct ArchiveFree {
    void operator()(archive *a) const { archive_write_free(a); }
};
struct EntryFree {
    void operator()(archive_entry *e) const { archive_entry_free(e); }
};

// A board path (absolute, or relative to "/") as a host path below root.
std::string host_path(const std::string &root, const std::string &word)
{
    const std::string absolute = word.empty() || word[0] != '/' ? "/" + word : word;
    std::string normal = fs::path(absolute).lexically_normal().string();
    while (normal.size() > 1 && normal.back() == '/')
        normal.pop_back();
    return normal == "/" ? root : root + normal;
}

class Packer {
public:
    Packer(std::string root, archive *out, std::string archive_host)
        : root_(std::move(root)), out_(out), archive_host_(std::move(archive_host))
    {
    }

    // Adds the file or tree at host path, named after its board path.
    void add(const std::string &path, std::string *messages, bool *failed)
    {
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0) {
            *messages += "tar: " + board_name(path) + ": Cannot stat: No such file or directory\n";
            *failed = true;
            return;
        }
        if (path == archive_host_) {
            *messages += "tar: " + board_name(path) + ": file is the archive; not dumped\n";
            return;
        }
        if (S_ISSOCK(st.st_mode) || S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode)) {
            *messages += "tar: " + board_name(path) + ": special file ignored\n";
            return;
        }
        std::unique_ptr<archive_entry, EntryFree> entry(archive_entry_new());
        archive_entry_copy_stat(entry.get(), &st);
        archive_entry_set_pathname(entry.get(), board_name(path).c_str());
        if (S_ISLNK(st.st_mode)) {
            std::error_code ec;
            archive_entry_set_symlink(entry.get(), fs::read_symlink(path, ec).c_str());
        }
        if (archive_write_header(out_, entry.get()) != ARCHIVE_OK) {
            *messages += "tar: " + board_name(path) + ": " + archive_error_string(out_) + "\n";
            *failed = true;
            return;
        }
        if (S_ISREG(st.st_mode) && !copy_data(path)) {
            *messages += "tar: " + board_name(path) + ": Read error\n";
            *failed = true;
        }
        if (S_ISDIR(st.st_mode)) {
            std::vector<std::string> children;
            std::error_code ec;
            for (const auto &child : fs::directory_iterator(path, ec))
                children.push_back(child.path().string());
            std::sort(children.begin(), children.end());
            for (const auto &child : children)
                add(child, messages, failed);
        }
    }

private:
    // Member names drop the leading '/', as GNU tar's do.
    std::string board_name(const std::string &path) const
    {
        return path.size() > root_.size() ? path.substr(root_.size() + 1) : ".";
    }

    bool copy_data(const std::string &path)
    {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            return false;
        char buf[16384];
        ssize_t n;
        bool ok = true;
        while ((n = ::read(fd, buf, sizeof buf)) > 0) {
            if (archive_write_data(out_, buf, static_cast<size_t>(n)) < 0) {
                ok = false;
                break;
            }
        }
        ::close(fd);
        return ok && n >= 0;
    }

    std::string root_;
    archive *out_;
    std::string archive_host_;
};

CommandResult tar(const std::string &root, const std::vector<std::string> &argv)
{
    const TarArgs args = parse(argv);
    if (!args.error.empty())
        return {kFatal, args.error + "\n"};
    const std::string archive_host = host_path(root, args.file);
    std::unique_ptr<archive, ArchiveFree> out(archive_write_new());
    if (!out)
        return {kFatal, "tar: libarchive (Debian package libarchive13) cannot be loaded\n"};
    if (args.gzip)
        archive_write_add_filter_gzip(out.get());
    archive_write_set_format_gnutar(out.get());
    if (archive_write_open_filename(out.get(), archive_host.c_str()) != ARCHIVE_OK)
        return {kFatal, "tar (child): " + args.file + ": Cannot open: " +
                            archive_error_string(out.get()) + "\ntar: Error is not recoverable: exiting now\n"};
    Packer packer(root, out.get(), archive_host);
    std::string messages;
    bool failed = false;
    for (const auto &path : args.paths)
        packer.add(host_path(root, path), &messages, &failed);
    if (archive_write_close(out.get()) != ARCHIVE_OK) {
        messages += std::string("tar: ") + args.file + ": " + archive_error_string(out.get()) + "\n";
        failed = true;
    }
    if (failed)
        return {kFatal, messages + "tar: Exiting with failure status due to previous errors\n"};
    return {0, messages};
}

} // namespace

VEXA_SIM_ATTACHER(tar_command)
{
    const std::string root = board.root();
    board.on_command("tar", [root](const std::vector<std::string> &argv, const std::string &) {
        return tar(root, argv);
    });
}
