// The badblocks command: checks a device of the board and writes the blocks
// it finds bad to the -o file. A device's bad blocks are listed, one number a
// line, in the board file "<device>.badblocks" (none when it is missing).
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "sim/board.h"

namespace vexa::sim::partitions {
namespace {

CommandResult badblocks(const Folder &folder, const std::vector<std::string> &argv)
{
    std::string output_file, device;
    for (size_t i = 1; i < argv.size(); ++i) {
        if (argv[i] == "-o" && i + 1 < argv.size())
            output_file = argv[++i];
        else if (!argv[i].empty() && argv[i][0] != '-')
            device = argv[i];
    }
    struct stat st;
    if (device.empty() || folder.stat(device, &st) != 0) {
        return {1 << 8, "badblocks: No such file or directory while trying to determine device "
                        "size\n"};
    }
    const std::string bad = folder.read(device + ".badblocks").value_or("");
    if (!output_file.empty() && folder.write(output_file, bad) != 0)
        return {1 << 8, "badblocks: " + std::string(std::strerror(errno)) + " while trying to open " +
                            output_file + "\n"};
    std::istringstream lines(bad);
    std::string line;
    int count = 0;
    while (std::getline(lines, line))
        count += line.empty() ? 0 : 1;
    const auto blocks = static_cast<unsigned long long>(st.st_size) / 1024;
    std::ostringstream out;
    out << "Checking blocks 0 to " << (blocks ? blocks - 1 : 0) << "\n"
        << "Checking for bad blocks (read-only test): done\n"
        << "Pass completed, " << count << " bad blocks found. (" << count << "/0/0 errors)\n";
    return {0, out.str()};
}

} // namespace

VEXA_SIM_ATTACHER(badblocks)
{
    const Folder folder = board.folder();
    board.on_command("badblocks", [folder](const std::vector<std::string> &argv,
                                           const std::string &) { return badblocks(folder, argv); });
}

} // namespace vexa::sim::partitions
