// The view's state as pages see it, and the pages that follow it: each page
// gets the whole state when it connects, then every change as a server-sent
// event ("section", "log", "output").
//
// Threads: every method may be called from any thread.
#ifndef VEXA_VIEW_HUB_H
#define VEXA_VIEW_HUB_H

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vexa::view {

class Hub {
public:
    // At most this many pages follow at once; the newest log records and
    // output bytes a page gets when it connects.
    static constexpr size_t kMaxPages = 8;
    static constexpr size_t kLogKept = 500;
    static constexpr size_t kOutputKept = 16 * 1024;

    struct Page;

    // A section's new JSON value (nothing is sent when it is unchanged).
    void section(const std::string &name, const std::string &json);
    // Log records (JSON objects), oldest first.
    void log(const std::vector<std::string> &records);
    // Bytes a line's board side wrote; reset: they replace what was kept.
    void output(const std::string &path, const std::string &bytes, bool reset);

    // The whole state as one JSON object: {"sections": {...}, "log": [...],
    // "output": {PATH: HEX}}.
    std::string state() const;

    // A new page, its first events the whole state; null when kMaxPages
    // pages follow already or the hub has stopped.
    std::shared_ptr<Page> follow();
    void leave(const std::shared_ptr<Page> &page);
    // The page's next events (server-sent-event text), waiting up to
    // wait_ms for one; "" when none came. False once the page is dropped
    // (it fell too far behind) or the hub stopped.
    bool next(const std::shared_ptr<Page> &page, int wait_ms, std::string *events);
    // Wakes and ends every page.
    void stop();

private:
    void send(const std::string &event, const std::string &json);
    std::string output_json(const std::string &path, const std::string &bytes, bool reset) const;

    mutable std::mutex mu_;
    std::condition_variable changed_;
    std::map<std::string, std::string> sections_;
    std::deque<std::string> log_;
    std::map<std::string, std::string> output_;
    std::vector<std::shared_ptr<Page>> pages_;
    bool stopped_ = false;
};

} // namespace vexa::view

#endif
