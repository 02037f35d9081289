// The board's process table (sim/processes.h).
#include "sim/processes.h"

#include <unistd.h>

#include <sstream>

namespace vexa::sim {

bool parse_process_line(const std::string &line, BoardProcess *out)
{
    std::istringstream words(line);
    std::string state;
    BoardProcess p;
    if (!(words >> p.pid >> p.ppid >> p.uid >> state >> p.rss_kb >> p.name) || state.empty())
        return false;
    p.state = state[0];
    *out = p;
    return true;
}

std::string process_line(const BoardProcess &p)
{
    return std::to_string(p.pid) + " " + std::to_string(p.ppid) + " " + std::to_string(p.uid) + " " +
           std::string(1, p.state) + " " + std::to_string(p.rss_kb) + " " + p.name;
}

std::vector<BoardProcess> process_table(const Board::State &s)
{
    std::vector<BoardProcess> table;
    for (const auto &line : state_lines(read_state(s, "processes"))) {
        BoardProcess p;
        if (parse_process_line(line, &p))
            table.push_back(p);
    }
    return table;
}

bool process_exists(const Board::State &s, int pid)
{
    if (pid <= 0)
        return false;
    if (pid == ::getpid())
        return true;
    for (const auto &p : process_table(s))
        if (p.pid == pid)
            return true;
    return false;
}

std::vector<BoardProcess> board_processes(const Board &board)
{
    std::vector<BoardProcess> table;
    for (const auto &line : state_lines(board.exists("/.board/processes") ? board.read_file("/.board/processes") : "")) {
        BoardProcess p;
        if (parse_process_line(line, &p))
            table.push_back(p);
    }
    return table;
}

void add_board_process(const Board &board, const BoardProcess &process)
{
    std::string text;
    for (const auto &p : board_processes(board))
        if (p.pid != process.pid)
            text += process_line(p) + "\n";
    board.write_file("/.board/processes", text + process_line(process) + "\n");
}

} // namespace vexa::sim
