// An append journal of the board's state: one text record a line, appended by
// any process that attaches the board and read incrementally by each of them.
//
// A process keeps the journal's descriptor open, so a record costs one write
// (between a shared lock and its release, so that compaction never loses
// one). Readers keep what they have read and read only what was appended
// since. The board's host compacts a journal that has grown: it writes the
// records that still matter to a new file and renames it over the old one,
// under the exclusive lock; a process whose descriptor names a file that has
// been replaced (no link left) opens the new one and reads it from the start.
//
// Threads: every method may be called from any thread.
#ifndef VEXA_SIM_JOURNAL_H
#define VEXA_SIM_JOURNAL_H

#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace vexa::sim {

class Journal {
public:
    explicit Journal(std::string path);
    ~Journal();
    Journal(const Journal &) = delete;
    Journal &operator=(const Journal &) = delete;

    const std::string &path() const { return path_; }

    // Appends one record (a newline is added); false when it could not.
    bool append(const std::string &record);

    // The records appended since the last call, in order. `restarted` tells
    // that the file was replaced or cut since (compacted or cleared): the
    // records are then the whole new file, and what was read before is gone.
    std::vector<std::string> read_new(bool *restarted);

    // Every record of the file, read afresh (the cursor of read_new stays).
    std::vector<std::string> read_all();

    // Replaces the whole file by what `compact` makes of its records, under
    // the exclusive lock: appends wait, and none is lost. The cursor of
    // read_new moves to the end of the new file, and `compact` sees first
    // the records read_new has not yet returned (as `fresh`).
    using Compactor = std::function<std::vector<std::string>(const std::vector<std::string> &all,
                                                             size_t fresh_from)>;
    bool rewrite(const Compactor &compact);

    // Size of the file now (-1 when it cannot be seen).
    off_t size();

private:
    // Opens the journal's current file; *seen (if given) is its status.
    bool ensure_open_locked(struct stat *seen = nullptr);
    std::vector<std::string> split_locked(const std::string &bytes);

    std::string path_;
    std::mutex mu_;
    int fd_ = -1;
    off_t offset_ = 0;    // bytes of the current file handed out by read_new
    std::string partial_; // a record not yet ended by its newline
    bool reopened_ = false; // the file was replaced since read_new last ran
};

} // namespace vexa::sim

#endif
