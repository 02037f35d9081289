// The board's kernel watchdog and its hal_watchdog_* calls.
//
// The model is the SoC's DesignWare watchdog as the RK3568's kernel drives
// it: one opener at a time (a second open is EBUSY while the first opener's
// process lives; a process that ends closes its descriptor), timeouts of 1 to
// 89 s (24 MHz, at most 2^31 cycles; others EINVAL), and an armed watchdog
// that is not fed within its timeout resets the board (Board::reset
// "watchdog"). Closing with the magic character (hal_watchdog_close) stops
// it. The countdown runs on the board's clock: in the host a thread waits
// for it in real time, and a fast clock's jumps are checked as they happen.
//
// State: the host's model, mirrored to ROOT/.board/watchdog ("DEV KEY=VALUE"
// a line: open, timeout, feeds, expired, owner, deadline) so that a person
// sees it and a host that starts again goes on counting. Requests of the
// service "watchdog" (answers "ok [VALUE]" or "err ERRNO"):
//   open DEV TIMEOUT PID            arms it for the process PID; the answer is its handle
//   feed DEV HANDLE TIMEOUT PID     feeds it (opening it when it is free)
//   close DEV                       the magic close: stops it
//   check DEV                       resets the board now if its time is up
//   get DEV KEY
#include <signal.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "platform/hal.h"
#include "platform/os.h"
#include "sim/rtc/rtc_watchdog.h"
#include "sim/state.h"

namespace vexa::sim {
namespace {

constexpr unsigned kMaxTimeout = 89; // s: 2^31 cycles of the 24 MHz clock
constexpr const char *kFile = "watchdog";

uint64_t real_now_ns()
{
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

bool process_lives(pid_t pid)
{
    return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM);
}

class Watchdog : public std::enable_shared_from_this<Watchdog> {
public:
    explicit Watchdog(std::weak_ptr<Board::State> state) : state_(std::move(state)) {}

    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> lock(mu_);
            stop_ = true;
        }
        cv_.notify_all();
        if (thread_.joinable()) {
            if (thread_.get_id() == std::this_thread::get_id())
                thread_.detach();
            else
                thread_.join();
        }
    }

    // Takes up what a host before this one left: a countdown goes on.
    void restore()
    {
        auto s = state_.lock();
        if (!s)
            return;
        std::lock_guard<std::mutex> lock(mu_);
        for (const auto &line : state_lines(read_state(*s, kFile))) {
            std::istringstream words(line);
            std::string dev, pair;
            words >> dev >> pair;
            const auto eq = pair.find('=');
            if (dev.empty() || eq == std::string::npos)
                continue;
            Device &d = devices_[dev];
            const std::string key = pair.substr(0, eq), value = pair.substr(eq + 1);
            const unsigned long long n = std::strtoull(value.c_str(), nullptr, 10);
            if (key == "open")
                d.armed = n != 0;
            else if (key == "timeout")
                d.timeout = unsigned(n);
            else if (key == "feeds")
                d.feeds = n;
            else if (key == "expired")
                d.expired = n != 0;
            else if (key == "owner")
                d.owner = pid_t(n);
            else if (key == "handle")
                d.handle = int(n);
            else if (key == "deadline")
                d.deadline = n; // CLOCK_MONOTONIC: it outlives the host
        }
        for (auto &[dev, d] : devices_) {
            // A deadline on another clock (a fast one) means nothing here.
            if (d.armed && d.deadline > real_now_ns() + uint64_t(kMaxTimeout) * 1000000000u)
                d.deadline = real_now_ns() + uint64_t(d.timeout) * 1000000000u;
            next_handle_ = std::max(next_handle_, d.handle);
        }
        wake_locked();
    }

    std::string serve(const std::string &request)
    {
        std::istringstream words(request);
        std::string op, dev;
        words >> op >> dev;
        auto s = state_.lock();
        if (!s)
            return err(ENODEV);
        // The node must be on the board (and not a path out of it).
        if (dev.empty() || dev[0] != '/' || dev.find("..") != std::string::npos ||
            s->folder().access(dev, F_OK) != 0)
            return err(ENOENT);
        std::string reply;
        bool bite = false;
        {
            std::lock_guard<std::mutex> lock(mu_);
            const uint64_t now = board_now_ns(*s);
            bite = due_locked(now);
            if (op == "open" || op == "feed") {
                long long handle = 0, timeout = 0, pid = 0;
                if (op == "open")
                    words >> timeout >> pid;
                else
                    words >> handle >> timeout >> pid;
                reply = arm_locked(*s, dev, op == "feed", int(handle), timeout, pid_t(pid), now);
            } else if (op == "close") {
                Device &d = devices_[dev];
                d.armed = false;
                d.owner = 0;
                d.handle = 0;
                save_locked(*s);
                reply = "ok";
            } else if (op == "check") {
                reply = "ok";
            } else if (op == "get") {
                std::string key;
                words >> key;
                reply = "ok " + value_locked(dev, key);
            } else {
                reply = err(EINVAL);
            }
        }
        if (bite)
            this->bite();
        return reply;
    }

    // Called as the board's clock moves on: bites when a deadline has passed.
    void check()
    {
        auto s = state_.lock();
        if (!s)
            return;
        bool bite = false;
        {
            std::lock_guard<std::mutex> lock(mu_);
            bite = due_locked(board_now_ns(*s));
        }
        if (bite)
            this->bite();
    }

    // The board was reset: the watchdog is stopped, as at power-on.
    void power_on()
    {
        auto s = state_.lock();
        std::lock_guard<std::mutex> lock(mu_);
        for (auto &[dev, d] : devices_) {
            d.armed = false;
            d.owner = 0;
            d.handle = 0;
        }
        if (s)
            save_locked(*s);
    }

private:
    struct Device {
        bool armed = false;
        bool expired = false;
        unsigned timeout = 0;
        unsigned long long feeds = 0;
        pid_t owner = 0; // the process whose descriptor holds it open
        int handle = 0;  // what that process keeps in its context
        uint64_t deadline = 0;
    };

    static std::string err(int error) { return "err " + std::to_string(error); }

    std::string arm_locked(Board::State &s, const std::string &dev, bool feed, int handle, long long timeout,
                           pid_t pid, uint64_t now)
    {
        if (timeout < 1 || timeout > kMaxTimeout)
            return err(EINVAL);
        Device &d = devices_[dev];
        const bool ours = d.owner == pid && d.handle == handle && handle > 0;
        if (!ours) {
            if (!feed && d.owner == pid && d.handle > 0)
                return err(EBUSY); // the same process opening it twice
            if (d.owner != 0 && d.owner != pid && process_lives(d.owner))
                return err(EBUSY);
            if (d.owner == pid && d.handle > 0 && feed && handle != d.handle)
                return err(EBUSY); // another context of the same process holds it
            d.owner = pid;
            d.handle = ++next_handle_;
        }
        d.armed = true;
        d.expired = false;
        d.timeout = unsigned(timeout);
        d.deadline = now + uint64_t(timeout) * 1000000000u;
        if (feed)
            ++d.feeds;
        save_locked(s);
        wake_locked();
        return "ok " + std::to_string(d.handle);
    }

    std::string value_locked(const std::string &dev, const std::string &key)
    {
        auto it = devices_.find(dev);
        if (it == devices_.end())
            return "";
        const Device &d = it->second;
        if (key == "open")
            return d.armed ? "1" : "0";
        if (key == "timeout")
            return std::to_string(d.timeout);
        if (key == "feeds")
            return std::to_string(d.feeds);
        if (key == "expired")
            return d.expired ? "1" : "0";
        return "";
    }

    // Marks the devices whose time is up; true when one is.
    bool due_locked(uint64_t now)
    {
        bool due = false;
        for (auto &[dev, d] : devices_) {
            if (d.armed && now >= d.deadline) {
                d.armed = false;
                d.expired = true;
                d.owner = 0;
                d.handle = 0;
                due = true;
            }
        }
        return due;
    }

    void bite()
    {
        auto s = state_.lock();
        if (!s)
            return;
        {
            std::lock_guard<std::mutex> lock(mu_);
            save_locked(*s);
        }
        reset_board(*s, "watchdog");
    }

    void save_locked(Board::State &s)
    {
        std::string text;
        for (const auto &[dev, d] : devices_) {
            text += dev + " open=" + (d.armed ? "1" : "0") + "\n";
            text += dev + " timeout=" + std::to_string(d.timeout) + "\n";
            text += dev + " feeds=" + std::to_string(d.feeds) + "\n";
            text += dev + " expired=" + (d.expired ? "1" : "0") + "\n";
            if (d.armed) {
                text += dev + " owner=" + std::to_string(d.owner) + "\n";
                text += dev + " handle=" + std::to_string(d.handle) + "\n";
                text += dev + " deadline=" + std::to_string(d.deadline - (board_now_ns(s) - real_now_ns())) + "\n";
            }
        }
        write_state(s, kFile, text);
    }

    // Starts the countdown, or tells it of a new deadline. The countdown
    // runs only while a watchdog is armed: an idle board has no thread that
    // wakes.
    void wake_locked()
    {
        if (running_) {
            cv_.notify_all();
            return;
        }
        bool armed = false;
        for (const auto &[dev, d] : devices_)
            armed |= d.armed;
        if (!armed)
            return;
        if (thread_.joinable())
            thread_.join(); // a countdown that has ended
        running_ = true;
        thread_ = std::thread([self = weak_from_this()] {
            // The model lives while its countdown waits; once the board has
            // gone, the countdown ends at its next deadline.
            for (;;) {
                auto me = self.lock();
                if (!me || !me->count_down())
                    return;
            }
        });
    }

    // Waits for the nearest deadline in real time, and bites when it has
    // passed on the board's clock. False when nothing is armed any more.
    bool count_down()
    {
        std::unique_lock<std::mutex> lock(mu_);
        uint64_t nearest = UINT64_MAX;
        for (const auto &[dev, d] : devices_)
            if (d.armed)
                nearest = std::min(nearest, d.deadline);
        auto s = state_.lock();
        if (stop_ || nearest == UINT64_MAX || !s) {
            running_ = false;
            return false;
        }
        const uint64_t now = board_now_ns(*s);
        s.reset();
        if (now < nearest) {
            cv_.wait_for(lock, std::chrono::nanoseconds(nearest - now));
            return true;
        }
        lock.unlock();
        check();
        return true;
    }

    std::weak_ptr<Board::State> state_;
    std::mutex mu_;
    std::condition_variable cv_;
    std::map<std::string, Device> devices_;
    int next_handle_ = 0;
    bool stop_ = false;
    bool running_ = false; // the countdown thread runs
    std::thread thread_;
};

// The service's answer: 0 with *value the text after "ok", or -1 with errno.
int ask(Board::State &s, const std::string &request, std::string *value = nullptr)
{
    const auto reply = call_service(s, "watchdog", request);
    if (!reply) {
        errno = ENODEV;
        return -1;
    }
    if (reply->rfind("ok", 0) != 0) {
        errno = reply->rfind("err ", 0) == 0 ? std::atoi(reply->c_str() + 4) : EIO;
        return -1;
    }
    if (value)
        *value = reply->size() > 3 ? reply->substr(3) : "";
    return 0;
}

} // namespace

std::string watchdog_state(const Board &board, const std::string &dev, const std::string &key)
{
    const auto reply = board.call("watchdog", "get " + dev + " " + key);
    return reply && reply->rfind("ok ", 0) == 0 ? reply->substr(3) : "";
}

} // namespace vexa::sim

using namespace vexa::sim;

VEXA_SIM_SEEDER(watchdog)
{
    board.write_file("/dev/watchdog", "");
}

VEXA_SIM_ATTACHER(watchdog)
{
    std::weak_ptr<Board::State> weak = attached();
    auto model = std::make_shared<Watchdog>(weak);
    model->restore();
    board.serve("watchdog", [model](const std::string &request) { return model->serve(request); });
    std::weak_ptr<Watchdog> weak_model = model;
    if (auto s = weak.lock())
        on_clock_advance(*s, [weak_model] {
            if (auto m = weak_model.lock())
                m->check();
        });
    board.on_reset([weak_model](const std::string &) {
        if (auto m = weak_model.lock())
            m->power_on();
    });
    model->check();
}

#define WDT_CALL(name)                                                                             \
    VEXA_SIM_ATTACHED_OR(-1);                                                                      \
    VEXA_SIM_FAULT(name, wdt ? std::string(wdt->dev) : std::string(), int);                        \
    if (!wdt) {                                                                                    \
        errno = EINVAL;                                                                            \
        return -1;                                                                                 \
    }                                                                                              \
    const std::string dev = std::string(wdt->dev, strnlen(wdt->dev, sizeof wdt->dev))

namespace {

// Opens (feed: feeds, opening it when this context holds no descriptor) and
// keeps the handle in the context, as the HAL keeps the descriptor.
int arm(Board::State &s, bi_watchdog_t *wdt, const std::string &dev, uint32_t timeout, bool feed)
{
    std::string handle;
    const std::string pid = std::to_string(::getpid());
    const std::string request =
        feed ? "feed " + dev + " " + std::to_string(wdt->fd) + " " + std::to_string(timeout) + " " + pid
             : "open " + dev + " " + std::to_string(timeout) + " " + pid;
    if (ask(s, request, &handle) < 0)
        return -1;
    wdt->timeout = timeout;
    wdt->fd = std::atoi(handle.c_str());
    return 0;
}

} // namespace

extern "C" int hal_watchdog_open(bi_watchdog_t *wdt, uint32_t timeout)
{
    WDT_CALL("hal_watchdog_open");
    return arm(s, wdt, dev, timeout, false);
}

extern "C" int hal_watchdog_feed(bi_watchdog_t *wdt, uint32_t timeout)
{
    WDT_CALL("hal_watchdog_feed");
    return arm(s, wdt, dev, timeout, true);
}

extern "C" int hal_watchdog_feed_loop(bi_watchdog_t *wdt, uint32_t count)
{
    WDT_CALL("hal_watchdog_feed_loop");
    const uint32_t timeout = wdt->timeout ? wdt->timeout : 10;
    for (uint32_t i = 0; i < count; ++i) {
        if (i > 0)
            vexa::os::sleep_us(static_cast<uint64_t>(wdt->interval ? wdt->interval : 1) * 1000000);
        if (arm(s, wdt, dev, timeout, true) < 0)
            return -1;
    }
    return 0;
}

extern "C" int hal_watchdog_test(bi_watchdog_t *wdt, uint32_t timeout, uint32_t feeds)
{
    WDT_CALL("hal_watchdog_test");
    if (arm(s, wdt, dev, timeout, false) < 0)
        return -1;
    for (uint32_t i = 0; i < feeds; ++i)
        if (arm(s, wdt, dev, timeout, true) < 0)
            return -1;
    // Nobody feeds it any more: once its timeout is up it resets the board.
    vexa::os::sleep_us(static_cast<uint64_t>(timeout) * 1000000);
    return ask(s, "check " + dev);
}

extern "C" int hal_watchdog_close(const char *dev)
{
    VEXA_SIM_ATTACHED_OR(-1);
    VEXA_SIM_FAULT("hal_watchdog_close", dev ? dev : "", int);
    return ask(s, std::string("close ") + (dev ? dev : ""));
}
