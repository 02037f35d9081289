#include "tools/view/hub.h"

#include <chrono>

namespace vexa::view {

struct Hub::Page {
    std::deque<std::string> events;
    size_t bytes = 0;
    bool dropped = false;
};

namespace {

// A page that has this much waiting has stopped reading: it is dropped, and
// reconnects (EventSource does) to get the whole state again.
constexpr size_t kMaxWaiting = 4 << 20;

std::string hex(const std::string &bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

std::string quoted(const std::string &text)
{
    // Names and paths of the board: printable, but escape what JSON needs.
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\')
            out += '\\';
        if (c < 0x20)
            continue;
        out += static_cast<char>(c);
    }
    return out + "\"";
}

std::string event_text(const std::string &event, const std::string &json)
{
    return "event: " + event + "\ndata: " + json + "\n\n";
}

} // namespace

void Hub::send(const std::string &event, const std::string &json)
{
    const std::string text = event_text(event, json);
    for (auto &page : pages_) {
        if (page->dropped)
            continue;
        page->events.push_back(text);
        page->bytes += text.size();
        if (page->bytes > kMaxWaiting)
            page->dropped = true;
    }
    changed_.notify_all();
}

void Hub::section(const std::string &name, const std::string &json)
{
    std::lock_guard<std::mutex> lock(mu_);
    auto &kept = sections_[name];
    if (kept == json)
        return;
    kept = json;
    send("section", "{\"name\":" + quoted(name) + ",\"value\":" + json + "}");
}

void Hub::log(const std::vector<std::string> &records)
{
    if (records.empty())
        return;
    std::lock_guard<std::mutex> lock(mu_);
    std::string list;
    for (const std::string &record : records) {
        log_.push_back(record);
        list += (list.empty() ? "" : ",") + record;
    }
    while (log_.size() > kLogKept)
        log_.pop_front();
    send("log", "{\"reset\":false,\"records\":[" + list + "]}");
}

std::string Hub::output_json(const std::string &path, const std::string &bytes, bool reset) const
{
    return "{\"path\":" + quoted(path) + ",\"reset\":" + (reset ? "true" : "false") + ",\"hex\":\"" + hex(bytes) +
           "\"}";
}

void Hub::output(const std::string &path, const std::string &bytes, bool reset)
{
    std::lock_guard<std::mutex> lock(mu_);
    std::string &kept = output_[path];
    if (reset)
        kept.clear();
    kept += bytes;
    if (kept.size() > kOutputKept)
        kept.erase(0, kept.size() - kOutputKept);
    send("output", output_json(path, reset ? kept : bytes, reset));
}

std::string Hub::state() const
{
    std::lock_guard<std::mutex> lock(mu_);
    std::string sections, log, output;
    for (auto &[name, json] : sections_)
        sections += (sections.empty() ? "" : ",") + quoted(name) + ":" + json;
    for (auto &record : log_)
        log += (log.empty() ? "" : ",") + record;
    for (auto &[path, bytes] : output_)
        output += (output.empty() ? "" : ",") + quoted(path) + ":\"" + hex(bytes) + "\"";
    return "{\"sections\":{" + sections + "},\"log\":[" + log + "],\"output\":{" + output + "}}";
}

std::shared_ptr<Hub::Page> Hub::follow()
{
    std::lock_guard<std::mutex> lock(mu_);
    if (stopped_ || pages_.size() >= kMaxPages)
        return nullptr;
    auto page = std::make_shared<Page>();
    for (auto &[name, json] : sections_)
        page->events.push_back(event_text("section", "{\"name\":" + quoted(name) + ",\"value\":" + json + "}"));
    std::string log;
    for (auto &record : log_)
        log += (log.empty() ? "" : ",") + record;
    page->events.push_back(event_text("log", "{\"reset\":true,\"records\":[" + log + "]}"));
    for (auto &[path, bytes] : output_)
        page->events.push_back(event_text("output", output_json(path, bytes, true)));
    pages_.push_back(page);
    return page;
}

void Hub::leave(const std::shared_ptr<Page> &page)
{
    std::lock_guard<std::mutex> lock(mu_);
    for (auto it = pages_.begin(); it != pages_.end(); ++it)
        if (*it == page) {
            pages_.erase(it);
            return;
        }
}

bool Hub::next(const std::shared_ptr<Page> &page, int wait_ms, std::string *events)
{
    std::unique_lock<std::mutex> lock(mu_);
    changed_.wait_for(lock, std::chrono::milliseconds(wait_ms),
                      [&] { return stopped_ || page->dropped || !page->events.empty(); });
    events->clear();
    if (stopped_ || page->dropped)
        return false;
    while (!page->events.empty()) {
        *events += page->events.front();
        page->events.pop_front();
    }
    page->bytes = 0;
    return true;
}

void Hub::stop()
{
    std::lock_guard<std::mutex> lock(mu_);
    stopped_ = true;
    changed_.notify_all();
}

} // namespace vexa::view
