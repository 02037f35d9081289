// The board's process table: ROOT/.board/processes, "PID PPID UID STATE
// RSS_KB NAME" a line, laid out with the processes of a running board. The
// calls that take a process id (kill, affinity, a cpuset's tasks) find it
// there, or it is the calling program itself (a program on the desk is a
// process of the board it attached); any other id is ESRCH, as the kernel
// answers.
#ifndef VEXA_SIM_PROCESSES_H
#define VEXA_SIM_PROCESSES_H

#include <string>
#include <vector>

#include "sim/state.h"

namespace vexa::sim {

struct BoardProcess {
    int pid = 0;
    int ppid = 1;
    int uid = 1000;
    char state = 'S';
    unsigned long long rss_kb = 4096;
    std::string name;
};

std::vector<BoardProcess> board_processes(const Board &board);
// Adds (or replaces, by pid) a process of the table.
void add_board_process(const Board &board, const BoardProcess &process);

// For the board's calls: the table as it is now, and whether pid names a
// process of the board (the table's, or the caller's own).
std::vector<BoardProcess> process_table(const Board::State &s);
bool process_exists(const Board::State &s, int pid);
// "PID PPID UID STATE RSS_KB NAME" of a table line; false for another line.
bool parse_process_line(const std::string &line, BoardProcess *out);
std::string process_line(const BoardProcess &process);

} // namespace vexa::sim

#endif
