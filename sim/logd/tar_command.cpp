// The board's tar: "tar -zcf ARCHIVE PATH..." packs board files into a real
// tar archive (gzip-compressed with z) through libarchive, as GNU tar does:
// member names are board paths without their leading '/', directories are
// walked, the archive itself is not packed into itself. Flags come in one
// word with or without '-' ("-zcf", "zcf") or apart; f takes the rest of its
// word or the next one. Only creating is carried out; anything else fails
// with exit status 2, as do a missing path and an archive that cannot be
// written. Paths are resolved beneath the board's root (sim/folder.h): a
// link is packed as a link, never followed, and one on the way that leads
// out of the folder is refused. libarchive is loaded when the first archive
// is written (archive_on_demand.cpp).
#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "sim/board.h"

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

// A board path (absolute, or relative to "/") as the device reads it.
std::string board_path(const std::string &word)
{
    return vexa::sim::Folder::normal(word);
}

class Packer {
public:
    Packer(vexa::sim::Folder folder, archive *out, struct stat archive_st)
        : folder_(std::move(folder)), out_(out), archive_st_(archive_st)
    {
    }

    // Adds the file or tree at a board path, named after it.
    void add(const std::string &path, std::string *messages, bool *failed)
    {
        struct stat st {};
        if (folder_.stat(path, &st, false) != 0) {
            *messages += "tar: " + member(path) + ": Cannot stat: " + std::strerror(errno) + "\n";
            *failed = true;
            return;
        }
        if (st.st_dev == archive_st_.st_dev && st.st_ino == archive_st_.st_ino) {
            *messages += "tar: " + member(path) + ": file is the archive; not dumped\n";
            return;
        }
        if (S_ISSOCK(st.st_mode) || S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode)) {
            *messages += "tar: " + member(path) + ": special file ignored\n";
            return;
        }
        std::unique_ptr<archive_entry, EntryFree> entry(archive_entry_new());
        archive_entry_copy_stat(entry.get(), &st);
        archive_entry_set_pathname(entry.get(), member(path).c_str());
        if (S_ISLNK(st.st_mode))
            archive_entry_set_symlink(entry.get(), folder_.read_link(path).value_or("").c_str());
        if (archive_write_header(out_, entry.get()) != ARCHIVE_OK) {
            *messages += "tar: " + member(path) + ": " + archive_error_string(out_) + "\n";
            *failed = true;
            return;
        }
        if (S_ISREG(st.st_mode) && !copy_data(path)) {
            *messages += "tar: " + member(path) + ": Read error\n";
            *failed = true;
        }
        if (S_ISDIR(st.st_mode)) {
            for (const auto &child : folder_.list(path).value_or(std::vector<std::string>()))
                add(path == "/" ? "/" + child : path + "/" + child, messages, failed);
        }
    }

private:
    // Member names drop the leading '/', as GNU tar's do.
    static std::string member(const std::string &path) { return path == "/" ? "." : path.substr(1); }

    bool copy_data(const std::string &path)
    {
        // A file is not opened through a link: one swapped in since the
        // stat leaves the member short rather than reading elsewhere.
        const vexa::sim::Descriptor fd(folder_.open(path, O_RDONLY | O_NOFOLLOW));
        if (!fd)
            return false;
        char buf[16384];
        ssize_t n;
        while ((n = ::read(fd.get(), buf, sizeof buf)) > 0) {
            if (archive_write_data(out_, buf, static_cast<size_t>(n)) < 0)
                return false;
        }
        return n >= 0;
    }

    vexa::sim::Folder folder_;
    archive *out_;
    struct stat archive_st_;
};

CommandResult tar(const vexa::sim::Folder &folder, const std::vector<std::string> &argv)
{
    const TarArgs args = parse(argv);
    if (!args.error.empty())
        return {kFatal, args.error + "\n"};
    const vexa::sim::Descriptor file(folder.open(board_path(args.file), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    struct stat archive_st {};
    if (!file || ::fstat(file.get(), &archive_st) != 0)
        return {kFatal, "tar (child): " + args.file + ": Cannot open: " + std::strerror(errno) +
                            "\ntar: Error is not recoverable: exiting now\n"};
    std::unique_ptr<archive, ArchiveFree> out(archive_write_new());
    if (!out)
        return {kFatal, "tar: libarchive (Debian package libarchive13) cannot be loaded\n"};
    if (args.gzip)
        archive_write_add_filter_gzip(out.get());
    archive_write_set_format_gnutar(out.get());
    if (archive_write_open_fd(out.get(), file.get()) != ARCHIVE_OK)
        return {kFatal, "tar (child): " + args.file + ": Cannot open: " +
                            archive_error_string(out.get()) + "\ntar: Error is not recoverable: exiting now\n"};
    Packer packer(folder, out.get(), archive_st);
    std::string messages;
    bool failed = false;
    for (const auto &path : args.paths)
        packer.add(board_path(path), &messages, &failed);
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
    const vexa::sim::Folder folder = board.folder();
    board.on_command("tar", [folder](const std::vector<std::string> &argv, const std::string &) {
        return tar(folder, argv);
    });
}
