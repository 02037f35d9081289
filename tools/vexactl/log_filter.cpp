#include "tools/vexactl/log_filter.h"

namespace vexactl {

std::optional<int> LogFilter::priority(const std::string &letter)
{
    static const std::string kLetters = "VDIWEFS";
    if (letter.size() != 1 || kLetters.find(letter[0]) == std::string::npos)
        return std::nullopt;
    return kVerbose + static_cast<int>(kLetters.find(letter[0]));
}

bool LogFilter::add(const std::string &spec)
{
    const size_t colon = spec.rfind(':');
    const std::string tag = spec.substr(0, colon);
    const auto level = colon == std::string::npos ? std::optional<int>(kVerbose) : priority(spec.substr(colon + 1));
    if (tag.empty() || !level)
        return false;
    if (tag == "*")
        default_ = *level;
    else
        tags_.emplace_back(tag, *level);
    return true;
}

bool LogFilter::passes(const std::string &tag, int priority) const
{
    for (auto &[name, level] : tags_)
        if (name == tag)
            return priority >= level;
    return priority >= default_;
}

} // namespace vexactl
