// The text filters of the board's shell pipelines: a command handler carries
// out its own program and hands the rest of the pipeline ("| grep X | awk
// '{print $2}' | cut -d/ -f1") to these, as a shell would.
#ifndef VEXA_SIM_SHELL_FILTERS_H
#define VEXA_SIM_SHELL_FILTERS_H

#include <optional>
#include <string>
#include <vector>

namespace vexa::sim {

// A command split at the pipes outside quotes, each stage into words with
// their quotes taken off.
std::vector<std::vector<std::string>> split_pipeline(const std::string &command);

// Runs input through the stages after the first: grep [-A N] PATTERN, awk
// '{print $N}' or '{ printf $N }', cut -dC -fN, head -n N. Nothing when a
// stage is not one of these.
std::optional<std::string> run_filters(const std::string &input,
                                       const std::vector<std::vector<std::string>> &stages);

} // namespace vexa::sim

#endif
