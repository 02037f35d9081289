// The board's fault knobs: one table of "MODEL.KNOB" settings that the
// models' attachers register in the host, with their values in
// ROOT/.board/knobs ("NAME=VALUE" a line, only the knobs that are set).
//
// Every process reads the values from the file (a stat tells whether its copy
// is current); listing and setting go through the host's service
// "board.knobs", which knows what each knob takes:
//   "list"                  -> a row a line: NAME VALUE TAKES HELP SET, tab-separated, escaped
//   "set\nNAME=VALUE\n..."  -> "ok", or "err ERRNO NAME=VALUE" for the first refused
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "sim/state.h"

namespace vexa::sim {
namespace {

constexpr const char *kFile = "knobs";
constexpr const char *kService = "board.knobs";

std::map<std::string, std::string> parse_values(const std::string &text)
{
    std::map<std::string, std::string> values;
    for (const std::string &line : state_lines(text)) {
        const auto eq = line.find('=');
        if (eq != std::string::npos && eq > 0)
            values[line.substr(0, eq)] = unescape_line(line.substr(eq + 1));
    }
    return values;
}

std::string stamp_of(const std::string &path)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        return "";
    return std::to_string(st.st_ino) + ":" + std::to_string(st.st_size) + ":" +
           std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
}

// Brings the copy of the values set up to date; s.knob_mu held.
void refresh(Board::State &s)
{
    const std::string stamp = stamp_of(s.state_path(kFile));
    if (stamp != s.knob_stamp || stamp.empty()) {
        s.knob_set = stamp.empty() ? std::map<std::string, std::string>{}
                                   : parse_values(read_state(s, kFile));
        s.knob_stamp = stamp;
    }
}

// The values set on the board now.
std::map<std::string, std::string> set_values(Board::State &s)
{
    std::lock_guard<std::mutex> lock(s.knob_mu);
    refresh(s);
    return s.knob_set;
}

bool takes(const Knob &knob, const std::string &value)
{
    if (knob.check)
        return knob.check(value);
    std::istringstream words(knob.takes);
    std::string word;
    while (std::getline(words, word, '|'))
        if (word == value)
            return true;
    return false;
}

std::string serve_list(Board::State &s)
{
    std::map<std::string, Knob> table;
    {
        std::lock_guard<std::mutex> lock(s.mu);
        table = s.knob_table;
    }
    const auto values = set_values(s);
    std::string out;
    for (const auto &[name, knob] : table) {
        const auto it = values.find(name);
        const bool set = it != values.end();
        out += escape_line(name) + '\t' + escape_line(set ? it->second : knob.initial) + '\t' +
               escape_line(knob.takes) + '\t' + escape_line(knob.help) + '\t' + (set ? "1" : "0") + '\n';
    }
    return out;
}

std::string serve_set(Board::State &s, const std::string &request)
{
    std::map<std::string, Knob> table;
    {
        std::lock_guard<std::mutex> lock(s.mu);
        table = s.knob_table;
    }
    std::vector<std::pair<std::string, std::string>> settings;
    std::istringstream in(request);
    std::string line;
    std::getline(in, line); // "set"
    while (std::getline(in, line)) {
        const auto eq = line.find('=');
        if (eq == std::string::npos)
            return "err " + std::to_string(EINVAL) + " " + line;
        const std::string name = line.substr(0, eq), value = unescape_line(line.substr(eq + 1));
        const auto it = table.find(name);
        if (it == table.end())
            return "err " + std::to_string(ENOENT) + " " + line;
        if (!value.empty() && !takes(it->second, value))
            return "err " + std::to_string(EINVAL) + " " + line;
        settings.emplace_back(name, value);
    }
    // Every setting is taken: the file changes once, under the board's lock.
    std::map<std::string, std::string> before, after;
    with_board_lock(s, [&] {
        before = parse_values(read_state(s, kFile));
        after = before;
        for (const auto &[name, value] : settings) {
            if (value.empty())
                after.erase(name);
            else
                after[name] = value;
        }
        std::string text;
        for (const auto &[name, value] : after)
            text += name + "=" + escape_line(value) + "\n";
        write_state(s, kFile, text);
    });
    for (const auto &[name, value] : settings) {
        (void)value;
        const Knob &knob = table.at(name);
        const auto was = before.count(name) ? before.at(name) : knob.initial;
        const auto now = after.count(name) ? after.at(name) : knob.initial;
        if (was != now && knob.changed)
            knob.changed(now);
    }
    return "ok";
}

bool number_in(const std::string &text, long long min, long long max)
{
    if (text.empty())
        return false;
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char *digits = text.c_str() + (hex ? 2 : 0);
    if (*digits == '\0' || *digits == '-' || *digits == '+' || *digits == ' ')
        return false;
    char *end = nullptr;
    errno = 0;
    const long long n = std::strtoll(digits, &end, hex ? 16 : 10);
    return errno == 0 && *end == '\0' && n >= min && n <= max;
}

} // namespace

Knob::Check Knob::number(long long min, long long max)
{
    return [min, max](const std::string &value) { return number_in(value, min, max); };
}

Knob::Check Knob::list_of(Check item)
{
    return [item](const std::string &value) {
        size_t start = 0;
        while (true) {
            const auto comma = value.find(',', start);
            const std::string one = value.substr(start, comma - start);
            if (one.empty() || !item(one))
                return false;
            if (comma == std::string::npos)
                return true;
            start = comma + 1;
        }
    };
}

std::string knob_value(Board::State &s, const std::string &name)
{
    {
        std::lock_guard<std::mutex> lock(s.knob_mu);
        refresh(s);
        if (auto it = s.knob_set.find(name); it != s.knob_set.end())
            return it->second;
    }
    std::lock_guard<std::mutex> lock(s.mu);
    auto it = s.knob_table.find(name);
    return it == s.knob_table.end() ? "" : it->second.initial;
}

bool partition_write_fails(Board::State &s, const std::string &board_path)
{
    if (board_path.compare(0, 11, "/dev/block/") != 0 && board_path.compare(0, 8, "/dev/mtd") != 0)
        return false;
    const std::string list = knob_value(s, "partitions.fail_writes");
    if (list.empty())
        return false;
    const std::string name = board_path.substr(board_path.rfind('/') + 1);
    std::istringstream items(list);
    std::string item;
    while (std::getline(items, item, ','))
        if (item == board_path || (board_path.compare(0, 19, "/dev/block/by-name/") == 0 && item == name))
            return true;
    return false;
}

void Board::add_knob(Knob knob) const
{
    std::lock_guard<std::mutex> lock(state_->mu);
    const std::string name = knob.name;
    state_->knob_table[name] = std::move(knob);
}

std::string Board::knob(const std::string &name) const { return knob_value(*state_, name); }

std::vector<KnobRow> Board::knobs() const
{
    std::vector<KnobRow> rows;
    const auto reply = call_service(*state_, kService, "list");
    if (!reply)
        return rows;
    std::istringstream in(*reply);
    std::string line;
    while (std::getline(in, line)) {
        std::vector<std::string> fields;
        std::istringstream cells(line);
        std::string cell;
        while (std::getline(cells, cell, '\t'))
            fields.push_back(unescape_line(cell));
        if (fields.size() == 5)
            rows.push_back({fields[0], fields[1], fields[2], fields[3], fields[4] == "1"});
    }
    return rows;
}

int Board::set_knobs(const std::vector<std::pair<std::string, std::string>> &settings,
                     std::string *refused) const
{
    std::string request = "set\n";
    for (const auto &[name, value] : settings) {
        // A name is one word; the value's line breaks travel escaped.
        if (name.empty() || name.find_first_of("=\n\t\\ ") != std::string::npos) {
            if (refused)
                *refused = name + "=" + value;
            errno = ENOENT;
            return -1;
        }
        request += name + "=" + escape_line(value) + "\n";
    }
    const auto reply = call_service(*state_, kService, request);
    if (!reply)
        return -1;
    if (*reply == "ok")
        return 0;
    std::istringstream words(*reply);
    std::string err;
    int error = EINVAL;
    words >> err >> error;
    std::string setting;
    std::getline(words, setting);
    if (refused)
        *refused = unescape_line(setting.empty() ? setting : setting.substr(1));
    errno = error;
    return -1;
}

int Board::set_knob(const std::string &name, const std::string &value) const
{
    return set_knobs({{name, value}});
}

} // namespace vexa::sim

using namespace vexa::sim;

VEXA_SIM_ATTACHER(knobs)
{
    std::weak_ptr<Board::State> weak = attached();
    board.serve(kService, [weak](const std::string &request) -> std::string {
        auto s = weak.lock();
        if (!s)
            return "err " + std::to_string(ENODEV);
        if (request == "list")
            return serve_list(*s);
        if (request.rfind("set\n", 0) == 0 || request == "set")
            return serve_set(*s, request);
        return "err " + std::to_string(EINVAL);
    });
}
