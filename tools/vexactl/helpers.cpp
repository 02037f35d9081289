// Helpers every command shares: messages, numbers, files.
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "tools/vexactl/command.h"
#include "tools/vexactl/parse.h"
#include "tools/vexactl/progress.h"

namespace vexactl {

int fail(const char *fmt, ...)
{
    break_progress_line();
    FILE *err = errors();
    std::fprintf(err, "vexactl: ");
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(err, fmt, ap);
    va_end(ap);
    std::fprintf(err, "\n");
    std::fflush(err);
    return 1;
}

void say(const Context &ctx, const char *fmt, ...)
{
    if (ctx.quiet)
        return;
    break_progress_line();
    FILE *err = errors();
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(err, fmt, ap);
    va_end(ap);
    std::fprintf(err, "\n");
    std::fflush(err);
}

int usage_error(const Command &command, const std::string &message)
{
    std::fprintf(errors(), "vexactl %s: %s\n%s\n", command.name.c_str(), message.c_str(),
                 usage_line(command).c_str());
    return 2;
}

ErrorWatch::ErrorWatch(vexa::sim::Board &board, std::string tag) : board_(board), tag_(std::move(tag))
{
    board_.new_log(); // marks where this watch begins
}

std::vector<vexa::sim::LogRecord> ErrorWatch::seen() const
{
    std::vector<vexa::sim::LogRecord> found;
    for (auto &record : board_.new_log())
        if (record.pid == ::getpid() && record.priority >= 6 && record.tag == tag_)
            found.push_back(record);
    return found;
}

bool parse_number(const std::string &text, long long min, long long max, long long *value)
{
    size_t at = 0;
    const bool negative = !text.empty() && text[0] == '-';
    if (negative)
        ++at;
    int base = 10;
    if (text.size() > at + 1 && text[at] == '0' && (text[at + 1] == 'x' || text[at + 1] == 'X')) {
        base = 16;
        at += 2;
    }
    if (at >= text.size())
        return false;
    unsigned long long magnitude = 0;
    for (; at < text.size(); ++at) {
        const unsigned char c = static_cast<unsigned char>(text[at]);
        int digit;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (base == 16 && std::isxdigit(c))
            digit = std::tolower(c) - 'a' + 10;
        else
            return false;
        if (magnitude > (~0ull - static_cast<unsigned>(digit)) / static_cast<unsigned>(base))
            return false;
        magnitude = magnitude * static_cast<unsigned>(base) + static_cast<unsigned>(digit);
    }
    long long v;
    if (negative) {
        if (magnitude > 1ull << 63)
            return false;
        v = magnitude == 1ull << 63 ? INT64_MIN : -static_cast<long long>(magnitude);
    } else {
        if (magnitude > static_cast<unsigned long long>(INT64_MAX))
            return false;
        v = static_cast<long long>(magnitude);
    }
    if (v < min || v > max)
        return false;
    *value = v;
    return true;
}

long long number_operand(const std::string &text, const std::string &what, long long min, long long max)
{
    long long value;
    if (!parse_number(text, min, max, &value))
        throw UsageError(what + " is a number from " + std::to_string(min) + " to " + std::to_string(max) +
                         ", not '" + text + "'");
    return value;
}

size_t one_of(const std::string &text, const std::string &what, const std::vector<std::string> &choices)
{
    for (size_t i = 0; i < choices.size(); ++i)
        if (choices[i] == text)
            return i;
    std::string list;
    for (size_t i = 0; i < choices.size(); ++i)
        list += (i == 0 ? "" : i + 1 == choices.size() ? " or " : ", ") + choices[i];
    throw UsageError(what + " is " + (choices.size() > 1 ? "one of " : "") + list + ", not '" + text + "'");
}

namespace {

namespace fs = std::filesystem;

// The board path that a host path inside the board's directory names
// ("BOARD/vendor/etc/mcu/x.bin": "/vendor/etc/mcu/x.bin"), or "".
std::string inside_board(Context &ctx, const std::string &host)
{
    std::error_code ec;
    const fs::path root = fs::weakly_canonical(ctx.board_root(), ec);
    const fs::path path = fs::weakly_canonical(fs::absolute(host, ec), ec);
    if (ec)
        return {};
    const fs::path rest = path.lexically_relative(root);
    if (rest.empty() || *rest.begin() == "..")
        return {};
    return rest == "." ? "/" : "/" + rest.string();
}

FileArg place(Context &ctx, const std::string &arg, bool to_write)
{
    FileArg file;
    if (arg == "-") {
        file.where = FileArg::Where::standard;
        return file;
    }
    std::error_code ec;
    const std::string probe = to_write ? fs::path(arg).parent_path().string() : arg;
    const bool on_host = fs::exists(probe.empty() ? "." : probe, ec);
    if (!on_host && !arg.empty() && arg[0] == '/' && ctx.board().exists(to_write ? probe : arg)) {
        file.where = FileArg::Where::board;
        file.path = arg;
        file.board_path = arg;
        return file;
    }
    file.path = arg;
    file.board_path = inside_board(ctx, arg);
    return file;
}

} // namespace

FileArg input_file(Context &ctx, const std::string &arg) { return place(ctx, arg, false); }

FileArg output_file(Context &ctx, const std::string &arg) { return place(ctx, arg, true); }

bool read_input(Context &ctx, const std::string &arg, std::string *bytes)
{
    const FileArg file = input_file(ctx, arg);
    if (file.where == FileArg::Where::standard) {
        bytes->clear();
        char buf[65536];
        ssize_t n;
        while ((n = ::read(STDIN_FILENO, buf, sizeof buf)) != 0) {
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0) {
                fail("cannot read standard input: %s", std::strerror(errno));
                return false;
            }
            bytes->append(buf, static_cast<size_t>(n));
        }
        return true;
    }
    if (file.where == FileArg::Where::board) {
        const auto read = ctx.board().folder().read(file.path);
        if (!read) {
            fail("cannot read %s: %s", arg.c_str(), std::strerror(errno));
            return false;
        }
        *bytes = *read;
        return true;
    }
    std::ifstream in(file.path, std::ios::binary);
    if (!in) {
        fail("cannot read %s: %s", arg.c_str(), std::strerror(errno));
        return false;
    }
    bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (in.bad()) {
        fail("cannot read %s", arg.c_str());
        return false;
    }
    return true;
}

bool write_output(Context &ctx, const std::string &arg, const std::string &bytes)
{
    const FileArg file = output_file(ctx, arg);
    if (file.where == FileArg::Where::standard) {
        if (std::fwrite(bytes.data(), 1, bytes.size(), ctx.std_out) != bytes.size() ||
            std::fflush(ctx.std_out) != 0) {
            fail("cannot write standard output: %s", std::strerror(errno));
            return false;
        }
        return true;
    }
    if (file.where == FileArg::Where::board) {
        try {
            ctx.board().write_file(file.path, bytes);
        } catch (const std::system_error &e) {
            fail("cannot write %s: %s", arg.c_str(), std::strerror(e.code().value()));
            return false;
        }
        return true;
    }
    std::ofstream out(file.path, std::ios::binary | std::ios::trunc);
    if (!out || !out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())) || !out.flush()) {
        fail("cannot write %s: %s", arg.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

} // namespace vexactl
