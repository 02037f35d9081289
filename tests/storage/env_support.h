// Helpers shared by the environment store's tests.
#ifndef VEXA_TESTS_STORAGE_ENV_SUPPORT_H
#define VEXA_TESTS_STORAGE_ENV_SUPPORT_H

#include <sys/mman.h>
#include <unistd.h>
#include <zlib.h>

#include <regex>
#include <string>
#include <vector>

#include "sim/env/env_image.h"
#include "sim/partitions/page_cache.h"
#include "support/board_fixture.h"

namespace vexa::test {

class EnvTest : public BoardTest {
protected:
    static constexpr const char *kDevice = "/dev/block/by-name/env";

    // The partition sits behind a page cache, as on the device: saves flush
    // it, and tests can cut the power between a write and its write-back.
    void SetUp() override
    {
        BoardTest::SetUp();
        cache_ = sim::add_page_cache(board(), kDevice);
    }

    sim::PageCache &cache() { return *cache_; }

    // The store's log lines with the source line number written as N:
    // "[Ubootenv.cpp, init, 212]" -> "[Ubootenv.cpp, init, N]".
    std::vector<std::string> env_log()
    {
        static const std::regex line_number(R"(^(./Ubootenv: \[Ubootenv\.cpp, \w+, )\d+\])");
        std::vector<std::string> lines;
        for (auto &line : log_of("Ubootenv"))
            lines.push_back(std::regex_replace(line, line_number, "$1N]"));
        return lines;
    }

    bool env_logged(const std::string &line)
    {
        auto lines = env_log();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }

    // An image around a raw data area (padded with zeros to 65532 bytes).
    static std::string image_of_data(std::string data)
    {
        data.resize(65532, '\0');
        const uLong crc = crc32(0L, reinterpret_cast<const Bytef *>(data.data()), data.size());
        std::string image(4, '\0');
        for (int i = 0; i < 4; ++i)
            image[i] = static_cast<char>((crc >> (8 * i)) & 0xff);
        return image + data;
    }

    void write_partition(const std::vector<std::string> &entries)
    {
        board().write_file(kDevice, sim::env::make_env_partition(entries));
    }

    // The entries of the copy at offset; empty when its CRC is bad.
    std::vector<std::string> copy_at(size_t offset)
    {
        std::vector<std::string> entries;
        sim::env::read_env_image(board().read_file(kDevice), offset, &entries);
        return entries;
    }

public:
    // What dump() writes, read back from a memory file.
    template <typename DumpFn> static std::string dumped(DumpFn dump)
    {
        const int fd = ::memfd_create("dump", 0);
        dump(fd);
        std::string text;
        char buf[4096];
        ssize_t n;
        ::lseek(fd, 0, SEEK_SET);
        while ((n = ::read(fd, buf, sizeof buf)) > 0)
            text.append(buf, static_cast<size_t>(n));
        ::close(fd);
        return text;
    }

private:
    std::shared_ptr<sim::PageCache> cache_;
};

} // namespace vexa::test

#endif
