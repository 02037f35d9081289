// The kernel's page cache in front of a partition of the virtual board.
//
// What is written is read back at once, as always, but it reaches the medium
// only when the writer flushes it (fsync). Until then the kernel may write
// the dirty pages back in any order it likes: when the power goes, some of
// them are on the medium and the others still hold what they held before.
// lose_power() plays that moment out, with the order and the number of pages
// that made it, so that a test can try every way a save can be cut.
//
// A flush is only recorded, never passed to the host's disk.
#ifndef VEXA_SIM_PARTITIONS_PAGE_CACHE_H
#define VEXA_SIM_PARTITIONS_PAGE_CACHE_H

#include <sys/types.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "sim/board.h"

namespace vexa::sim {

class PageCache : public DeviceModel {
public:
    static constexpr size_t kPageSize = 4096;

    // The order in which the kernel writes dirty pages back.
    enum class WriteBack {
        Ascending,  // by offset: the order the writer most likely used
        Descending, // the last page first
        Alternating, // lowest, highest, second lowest, second highest, ...
    };

    // Pages written since the last flush.
    size_t dirty_pages() const;
    // The power goes: of the dirty pages, the first `kept` in `order` reach
    // the medium and the others return to what the medium held. The cache is
    // then clean.
    void lose_power(WriteBack order, size_t kept);

    int open(const Folder &folder, const std::string &board_path, int flags, mode_t mode) override;
    ssize_t write(int fd, const void *buf, size_t count) override;
    ssize_t pwrite(int fd, const void *buf, size_t count, off_t offset) override;
    int fsync(int fd) override;

private:
    // Keeps what the medium holds of the pages that [offset, offset + count)
    // is about to change, unless a page is dirty already.
    void keep_medium(off_t offset, size_t count);

    mutable std::mutex mu_;
    Folder folder_;
    std::string board_path_;
    std::map<off_t, std::string> medium_; // dirty page -> its bytes on the medium
};

// Puts a page cache in front of the board file at board_path, for this
// process, and returns it.
std::shared_ptr<PageCache> add_page_cache(const Board &board, const std::string &board_path);

} // namespace vexa::sim

#endif
