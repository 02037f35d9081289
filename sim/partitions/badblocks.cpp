// The badblocks command: checks a device of the board and writes the blocks
// it finds bad to the -o file. A device's bad blocks are listed, one number a
// line, in the board file "<device>.badblocks" (none when it is missing).
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "sim/board.h"

namespace fs = std::filesystem;

namespace vexa::sim::partitions {
namespace {

std::string read_host(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

CommandResult badblocks(const std::string &root, const std::vector<std::string> &argv)
{
    std::string output_file, device;
    for (size_t i = 1; i < argv.size(); ++i) {
        if (argv[i] == "-o" && i + 1 < argv.size())
            output_file = argv[++i];
        else if (!argv[i].empty() && argv[i][0] != '-')
            device = argv[i];
    }
    std::error_code ec;
    if (device.empty() || !fs::exists(root + device, ec)) {
        return {1 << 8, "badblocks: No such file or directory while trying to determine device "
                        "size\n"};
    }
    const std::string bad = read_host(root + device + ".badblocks");
    if (!output_file.empty()) {
        fs::create_directories(fs::path(root + output_file).parent_path(), ec);
        std::ofstream(root + output_file, std::ios::binary | std::ios::trunc) << bad;
    }
    std::istringstream lines(bad);
    std::string line;
    int count = 0;
    while (std::getline(lines, line))
        count += line.empty() ? 0 : 1;
    const auto blocks = fs::file_size(root + device, ec) / 1024;
    std::ostringstream out;
    out << "Checking blocks 0 to " << (blocks ? blocks - 1 : 0) << "\n"
        << "Checking for bad blocks (read-only test): done\n"
        << "Pass completed, " << count << " bad blocks found. (" << count << "/0/0 errors)\n";
    return {0, out.str()};
}

} // namespace

VEXA_SIM_ATTACHER(badblocks)
{
    const std::string root = board.root();
    board.on_command("badblocks", [root](const std::vector<std::string> &argv,
                                         const std::string &) { return badblocks(root, argv); });
}

} // namespace vexa::sim::partitions
