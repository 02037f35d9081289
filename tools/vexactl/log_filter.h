// The log's filter, as logcat takes it: TAG:P specs, where P is one of
// V D I W E F S (verbose, debug, info, warning, error, fatal, silent) and a
// record passes when its priority is at least that of the first spec that
// names its tag, or of the default ("*:P"; verbose, or silent with -s).
#ifndef VEXACTL_LOG_FILTER_H
#define VEXACTL_LOG_FILTER_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vexactl {

class LogFilter {
public:
    // The priority a letter names (V 2 ... F 7, S 8), or none.
    static std::optional<int> priority(const std::string &letter);

    // -s: the default is silent, so only the tags named pass.
    void silence() { default_ = kSilent; }
    // Adds a spec: "TAG:P", "TAG" (TAG:V) or "*:P" (the default). False for
    // anything else, which changes nothing.
    bool add(const std::string &spec);
    bool passes(const std::string &tag, int priority) const;

private:
    static constexpr int kVerbose = 2, kSilent = 8;
    std::vector<std::pair<std::string, int>> tags_;
    int default_ = kVerbose;
};

} // namespace vexactl

#endif
