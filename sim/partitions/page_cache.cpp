#include "sim/partitions/page_cache.h"

#include <fcntl.h>
#include <unistd.h>

#include <vector>

namespace vexa::sim {

size_t PageCache::dirty_pages() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return medium_.size();
}

void PageCache::lose_power(WriteBack order, size_t kept)
{
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<off_t> pages;
    for (const auto &page : medium_)
        pages.push_back(page.first);
    std::vector<off_t> written_back;
    for (size_t lo = 0, hi = pages.size(); lo < hi;) {
        if (order == WriteBack::Ascending)
            written_back.push_back(pages[lo++]);
        else if (order == WriteBack::Descending)
            written_back.push_back(pages[--hi]);
        else
            written_back.push_back(written_back.size() % 2 == 0 ? pages[lo++] : pages[--hi]);
    }
    const Descriptor fd(folder_.open(board_path_, O_WRONLY));
    for (size_t i = kept; fd && i < written_back.size(); ++i) {
        const std::string &bytes = medium_[written_back[i]];
        (void)!::pwrite(fd.get(), bytes.data(), bytes.size(), written_back[i]);
    }
    medium_.clear();
}

int PageCache::open(const Folder &folder, const std::string &board_path, int flags, mode_t mode)
{
    {
        std::lock_guard<std::mutex> lock(mu_);
        folder_ = folder;
        board_path_ = board_path;
    }
    return folder.open(board_path, flags, mode);
}

void PageCache::keep_medium(off_t offset, size_t count)
{
    if (count == 0 || offset < 0)
        return;
    std::lock_guard<std::mutex> lock(mu_);
    Descriptor medium; // the file, read through a descriptor of our own
    const off_t first = offset / kPageSize * kPageSize;
    for (off_t page = first; page < offset + static_cast<off_t>(count); page += kPageSize) {
        if (medium_.count(page))
            continue;
        if (!medium)
            medium = Descriptor(folder_.open(board_path_, O_RDONLY));
        std::string bytes(kPageSize, '\0');
        const ssize_t n = ::pread(medium.get(), bytes.data(), kPageSize, page);
        bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
        medium_[page] = std::move(bytes);
    }
}

ssize_t PageCache::write(int fd, const void *buf, size_t count)
{
    keep_medium(::lseek(fd, 0, SEEK_CUR), count);
    return ::write(fd, buf, count);
}

ssize_t PageCache::pwrite(int fd, const void *buf, size_t count, off_t offset)
{
    keep_medium(offset, count);
    return ::pwrite(fd, buf, count, offset);
}

int PageCache::fsync(int)
{
    std::lock_guard<std::mutex> lock(mu_);
    medium_.clear();
    return 0;
}

std::shared_ptr<PageCache> add_page_cache(const Board &board, const std::string &board_path)
{
    auto cache = std::make_shared<PageCache>();
    board.add_model(board_path, cache);
    return cache;
}

} // namespace vexa::sim
